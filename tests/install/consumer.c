/* Built against an installed qvaclient only (pkg-config): calls ECHO on the
 * Gateway at 127.0.0.1:PORT, then lists its servers, one per line. Exits 0
 * only when both work. */
#include <qvaclient/qvaclient.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int fail(const char *what, int rc) {
  char name[QVA_RC_STRING_SIZE];
  fprintf(stderr, "%s: rc=%d %s\n", what, rc, QVA_getRcString(rc, name));
  return 1;
}

int main(int argc, char **argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s PORT\n", argv[0]);
    return 2;
  }
  QvaGatewayToken *gw = NULL;
  int rc = QVA_openRemoteGatewayConnection("127.0.0.1", atoi(argv[1]), &gw, 10);
  if (rc != QVA_OK) return fail("open", rc);

  static const char sent[] = "installed tree, C";
  char data[32];
  memset(data, 0, sizeof data);
  memcpy(data, sent, sizeof sent);
  ECI_PARMS parms;
  memset(&parms, 0, sizeof parms);
  parms.eci_call_type = ECI_SYNC;
  parms.eci_version = ECI_VERSION_4;
  memcpy(parms.eci_program_name, "ECHO    ", 8);
  parms.eci_commarea = data;
  parms.eci_commarea_length = sizeof data;
  rc = QVA_ECI_Execute(gw, &parms);
  if (rc != ECI_NO_ERROR) return fail("ECHO", rc);
  if (memcmp(data, sent, sizeof sent) != 0) {
    fprintf(stderr, "ECHO returned \"%.32s\"\n", data);
    return 1;
  }
  printf("ECHO: %s\n", data);

  QVA_SYSTEM_ENTRY list[8];
  unsigned short systems = 8;
  rc = QVA_listSystems(gw, &systems, list);
  if (rc != QVA_OK) return fail("list", rc);
  for (unsigned short i = 0; i < systems; ++i) printf("server %s: %s\n", list[i].SystemName, list[i].Description);

  rc = QVA_closeGatewayConnection(&gw);
  if (rc != QVA_OK) return fail("close", rc);
  return 0;
}
