/* channel_call: build a channel of three containers, call the server program
 * CHMIX with it, and print the containers before and after the call.
 *
 *   channel_call HOST PORT
 *
 * CHMIX deletes the first container it is sent, upper-cases the second,
 * doubles the third and adds a BIT container MIXED. A channel sends its
 * containers newest first, so here it deletes NOTE, upper-cases GREETING and
 * doubles RAW.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <qvaclient/qvaclient.h>

static int failed(const char *what, int rc) {
  char name[QVA_RC_STRING_SIZE];
  fprintf(stderr, "%s failed: rc=%d %s\n", what, rc, QVA_getRcString(rc, name));
  return 1;
}

/* One line per container: name, type, CCSID, length, then the data as text
 * (CHAR) or hex (BIT). */
static int printContainers(QvaChannel *chan) {
  ContainerInfo info;
  int rc;
  /* ECI_getFirstContainer starts a new walk; after a channel call always
   * begin with it. */
  for (rc = ECI_getFirstContainer(chan, &info); rc == ECI_NO_ERROR; rc = ECI_getNextContainer(chan, &info)) {
    unsigned char data[64];
    uint32_t got = 0;
    int drc = ECI_getContainerData(chan, info.name, data, sizeof data, 0, &got);
    if (drc != ECI_NO_ERROR) return failed("ECI_getContainerData", drc);
    printf("  %-16s %s ccsid=%u length=%u ", info.name, info.type == ECI_CHAR ? "CHAR" : "BIT ", (unsigned)info.ccsid,
           (unsigned)info.dataLength);
    if (info.type == ECI_CHAR) {
      printf("\"%.*s\"\n", (int)got, (const char *)data);
    } else {
      for (uint32_t i = 0; i < got; ++i) printf("%02X", data[i]);
      printf("\n");
    }
  }
  if (rc != ECI_ERR_ENDOFCONTAINERS) return failed("ECI_getNextContainer", rc);
  return 0;
}

int main(int argc, char **argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s HOST PORT\n", argv[0]);
    return 2;
  }

  /* A channel lives in the library's memory; it needs no connection. */
  QvaChannel *chan = NULL;
  int rc = ECI_createChannel("ORDERS", &chan);
  if (rc != ECI_NO_ERROR) return failed("ECI_createChannel", rc);

  static const unsigned char raw[] = {0x00, 0x01, 0x02};
  /* CCSID 0: the channel's, taken from LANG (819 when LANG names none). */
  if ((rc = ECI_createContainer(chan, "RAW", ECI_BIT, 0, raw, sizeof raw)) != ECI_NO_ERROR ||
      (rc = ECI_createContainer(chan, "GREETING", ECI_CHAR, 0, "hello world", 11)) != ECI_NO_ERROR ||
      (rc = ECI_createContainer(chan, "NOTE", ECI_CHAR, 0, "to be deleted", 13)) != ECI_NO_ERROR) {
    failed("ECI_createContainer", rc);
    ECI_deleteChannel(&chan);
    return 1;
  }
  printf("before the call:\n");
  if (printContainers(chan) != 0) return 1;

  QvaGatewayToken *gw = NULL;
  rc = QVA_openRemoteGatewayConnection(argv[1], atoi(argv[2]), &gw, 30);
  if (rc != QVA_OK) {
    failed("QVA_openRemoteGatewayConnection", rc);
    ECI_deleteChannel(&chan);
    return 1;
  }

  /* A channel call needs eci_version 4 and no COMMAREA. */
  ECI_PARMS parms;
  memset(&parms, 0, sizeof parms);
  parms.eci_call_type = ECI_SYNC;
  parms.eci_version = ECI_VERSION_4;
  memcpy(parms.eci_program_name, "CHMIX   ", 8);
  parms.eci_channel = chan;

  rc = QVA_ECI_Execute_Channel(gw, &parms);
  int closeRc = QVA_closeGatewayConnection(&gw);
  if (rc != QVA_OK) {
    failed("QVA_ECI_Execute_Channel", rc);
    ECI_deleteChannel(&chan);
    return 1;
  }
  if (closeRc != QVA_OK) failed("QVA_closeGatewayConnection", closeRc);

  char name[17];
  rc = ECI_getChannelName(chan, name);
  if (rc != ECI_NO_ERROR) return failed("ECI_getChannelName", rc);
  printf("after the call, channel %s:\n", name);
  if (printContainers(chan) != 0) return 1;

  rc = ECI_deleteChannel(&chan);
  if (rc != ECI_NO_ERROR) return failed("ECI_deleteChannel", rc);
  return closeRc == QVA_OK ? 0 : 1;
}
