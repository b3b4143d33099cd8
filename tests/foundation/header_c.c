/* A C99 application that includes only the umbrella header and links the
 * shared library. Built with -std=c99 -pedantic -Werror. */
#include <qvaclient/qvaclient.h>

#include <stddef.h>
#include <stdio.h>
#include <string.h>

/* The packed layout as C sees it (header_cpp.cpp pins the rest). */
typedef char eci_parms_is_packed[(sizeof(ECI_PARMS) == 78 + 2 * sizeof(void *)) ? 1 : -1];
typedef char container_info_is_29_bytes[(sizeof(ContainerInfo) == 29) ? 1 : -1];
typedef char info_length_at_25[(offsetof(ContainerInfo, dataLength) == 25) ? 1 : -1];

static int failures = 0;

static void check(int ok, const char *what) {
  if (!ok) {
    printf("FAILED: %s\n", what);
    ++failures;
  }
}

int main(void) {
  char name[QVA_RC_STRING_SIZE];
  const char *version = NULL;
  int level = -1;
  QvaGatewayToken *token = NULL;
  ECI_PARMS parms;
  QvaChannel *channel = NULL;
  ContainerInfo info;
  int32_t ccsid = 0;

  memset(&parms, 0, sizeof parms);
  parms.eci_call_type = ECI_SYNC;
  parms.eci_version = ECI_VERSION_4;

  check(strcmp(QVA_getRcString(QVA_ERR_TRACEFILE, name), "QVA_ERR_TRACEFILE") == 0, "QVA_getRcString");
  check(strcmp(QVA_getRcStringECI(ECI_ERR_INVALID_NAME, name), "ECI_ERR_INVALID_NAME") == 0, "QVA_getRcStringECI");
  check(QVA_getDLLVersion(&version) == QVA_OK && strcmp(version, "8.0.0.1") == 0, "QVA_getDLLVersion");
  check(QVA_getAPIVersion(&version) == QVA_OK && strcmp(version, "2.1.0.0") == 0, "QVA_getAPIVersion");
  check(QVA_setAPITraceLevel(0) == QVA_OK, "QVA_setAPITraceLevel");
  check(QVA_getAPITraceLevel(&level) == QVA_OK && level == 0, "QVA_getAPITraceLevel");
  QVA_setAPITraceDataOffset(0);
  QVA_setAPITraceDataLength(128);
  check(QVA_closeGatewayConnection(NULL) == QVA_ERR_NULLGWTOKPTR, "QVA_closeGatewayConnection(NULL)");
  check(QVA_closeGatewayConnection(&token) == QVA_ERR_NULLGWTOK, "QVA_closeGatewayConnection(&NULL)");
  check(QVA_ECI_Execute(NULL, &parms) == QVA_ERR_NULLGWTOK, "QVA_ECI_Execute(NULL token)");
  check(QVA_ECI_Execute_Channel(NULL, &parms) == QVA_ERR_NULLGWTOK, "QVA_ECI_Execute_Channel(NULL token)");
  check(ECI_createChannel("C99", &channel) == ECI_NO_ERROR, "ECI_createChannel");
  check(ECI_createContainer(channel, "DATA", ECI_BIT, 0, "abc", 3) == ECI_NO_ERROR, "ECI_createContainer");
  check(ECI_getFirstContainer(channel, &info) == ECI_NO_ERROR && info.dataLength == 3, "ECI_getFirstContainer");
  check(ECI_deleteChannel(&channel) == ECI_NO_ERROR && channel == NULL, "ECI_deleteChannel");
  check(getCurrentCcsid(&ccsid) == 0 && ccsid > 0 && CodeSetTable[0].ccsid == 1089, "getCurrentCcsid");

  printf("%d failed\n", failures);
  return failures == 0 ? 0 : 1;
}
