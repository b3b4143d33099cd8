/* connect_call: open a connection to a Gateway, call the server program ECHO
 * with a text COMMAREA, print the reply and close the connection.
 *
 *   connect_call HOST PORT [TEXT]
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <qvaclient/qvaclient.h>

/* Prints what failed, the result code and its name; returns 1 for main. */
static int failed(const char *what, int rc) {
  char name[QVA_RC_STRING_SIZE];
  fprintf(stderr, "%s failed: rc=%d %s\n", what, rc, QVA_getRcString(rc, name));
  return 1;
}

/* Copies text into a blank-padded field of the parameter block. */
static void setField(char *field, size_t size, const char *text) {
  size_t n = strlen(text);
  if (n > size) n = size;
  memset(field, ' ', size);
  memcpy(field, text, n);
}

int main(int argc, char **argv) {
  if (argc < 3 || argc > 4) {
    fprintf(stderr, "usage: %s HOST PORT [TEXT]\n", argv[0]);
    return 2;
  }
  const char *host = argv[1];
  const int port = atoi(argv[2]);
  const char *text = argc == 4 ? argv[3] : "hello, gateway";

  QvaGatewayToken *gw = NULL;
  int rc = QVA_openRemoteGatewayConnection(host, port, &gw, 30);
  if (rc != QVA_OK) return failed("QVA_openRemoteGatewayConnection", rc);
  printf("connected to %s:%d\n", host, port);

  /* The COMMAREA is the caller's: the program reads it and the reply is
   * written back into it, never past eci_commarea_length bytes. */
  char commarea[256];
  memset(commarea, 0, sizeof commarea);
  size_t length = strlen(text);
  if (length > sizeof commarea) length = sizeof commarea;
  memcpy(commarea, text, length);

  ECI_PARMS parms;
  memset(&parms, 0, sizeof parms);
  parms.eci_call_type = ECI_SYNC;
  parms.eci_version = ECI_VERSION_4;
  parms.eci_extend_mode = ECI_NO_EXTEND;
  setField(parms.eci_program_name, sizeof parms.eci_program_name, "ECHO");
  parms.eci_commarea = commarea;
  parms.eci_commarea_length = (short)length;

  rc = QVA_ECI_Execute(gw, &parms);
  if (rc != QVA_OK) {
    failed("QVA_ECI_Execute", rc);
    if (rc == ECI_ERR_TRANSACTION_ABEND) fprintf(stderr, "abend code: %.4s\n", parms.eci_abend_code);
    QVA_closeGatewayConnection(&gw);
    return 1;
  }
  printf("ECHO returned %d bytes: %.*s\n", (int)length, (int)length, commarea);

  rc = QVA_closeGatewayConnection(&gw);
  if (rc != QVA_OK) return failed("QVA_closeGatewayConnection", rc);
  printf("closed\n");
  return 0;
}
