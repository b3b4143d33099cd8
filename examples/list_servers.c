/* list_servers: ask a Gateway which servers it knows and print them.
 *
 *   list_servers HOST PORT
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <qvaclient/qvaclient.h>

#define CAPACITY 16

static int failed(const char *what, int rc) {
  char name[QVA_RC_STRING_SIZE];
  fprintf(stderr, "%s failed: rc=%d %s\n", what, rc, QVA_getRcString(rc, name));
  return 1;
}

/* Length of a blank-padded field without its padding. */
static int trimmedLength(const char *field, size_t size) {
  size_t n = 0;
  while (n < size && field[n] != '\0') ++n;
  while (n > 0 && field[n - 1] == ' ') --n;
  return (int)n;
}

int main(int argc, char **argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s HOST PORT\n", argv[0]);
    return 2;
  }
  QvaGatewayToken *gw = NULL;
  int rc = QVA_openRemoteGatewayConnection(argv[1], atoi(argv[2]), &gw, 30);
  if (rc != QVA_OK) return failed("QVA_openRemoteGatewayConnection", rc);

  /* In: how many entries the list can take. Out: how many the Gateway knows. */
  QVA_SYSTEM_ENTRY list[CAPACITY];
  unsigned short systems = CAPACITY;
  rc = QVA_listSystems(gw, &systems, list);
  if (rc != QVA_OK && rc != QVA_ERR_MORE_SYSTEMS) {
    failed("QVA_listSystems", rc);
    QVA_closeGatewayConnection(&gw);
    return 1;
  }
  /* With QVA_ERR_MORE_SYSTEMS only the first CAPACITY entries are filled. */
  unsigned filled = systems < CAPACITY ? systems : CAPACITY;
  printf("%u servers\n", (unsigned)systems);
  for (unsigned i = 0; i < filled; ++i) {
    const QVA_SYSTEM_ENTRY *e = &list[i];
    printf("%-8.*s  %.*s\n", trimmedLength(e->SystemName, sizeof e->SystemName), e->SystemName,
           trimmedLength(e->Description, sizeof e->Description), e->Description);
  }
  if (rc == QVA_ERR_MORE_SYSTEMS) printf("(%u more not shown)\n", (unsigned)systems - filled);

  rc = QVA_closeGatewayConnection(&gw);
  if (rc != QVA_OK) return failed("QVA_closeGatewayConnection", rc);
  return 0;
}
