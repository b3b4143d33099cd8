/* An application that includes only the umbrella header and links the shared
 * library: the packed layouts it shares, every function of the interface (the
 * link fails if one is not exported), calls into each part and the exported
 * table. Built as C99 with -pedantic -Werror, and as C++ by header_cpp.cpp. */
#include <qvaclient/qvaclient.h>

#include <stddef.h>
#include <stdio.h>
#include <string.h>

/* The layout checks and the table of the interface, packed by hand. */
/* clang-format off */
#define P sizeof(void *)
#define AT(field, offset) offsetof(ECI_PARMS, field) == (offset)
typedef char eci_parms_is_packed[(sizeof(ECI_PARMS) == 78 + 2 * P && sizeof(((ECI_PARMS *)0)->eci_luw_token) == 4 &&
    AT(eci_call_type, 0) && AT(eci_program_name, 2) && AT(eci_userid, 10) && AT(eci_password, 26) &&
    AT(eci_transid, 42) && AT(eci_abend_code, 46) && AT(eci_commarea, 50) && AT(eci_commarea_length, 50 + P) &&
    AT(eci_timeout, 52 + P) && AT(eci_extend_mode, 54 + P) && AT(eci_luw_token, 56 + P) && AT(eci_version, 60 + P) &&
    AT(eci_system_name, 62 + P) && AT(eci_tpn, 70 + P) && AT(eci_send_length, 74 + P) &&
    AT(eci_receive_length, 76 + P) && AT(eci_channel, 78 + P)) ? 1 : -1];
typedef char others_are_packed[(sizeof(ContainerInfo) == 29 && offsetof(ContainerInfo, dataLength) == 25 &&
    sizeof(QVA_SYSTEM_ENTRY) == 70 && offsetof(QVA_SYSTEM_ENTRY, Description) == 9) ? 1 : -1];

typedef void (*Function)(void);
#define F(name) (Function)name
static const Function kInterface[] = {F(QVA_getRcString), F(QVA_getRcStringECI), F(QVA_getDLLVersion),
    F(QVA_getAPIVersion), F(QVA_setAPITraceLevel), F(QVA_getAPITraceLevel), F(QVA_setAPITraceFile),
    F(QVA_setAPITraceDataOffset), F(QVA_setAPITraceDataLength), F(QVA_dumpState), F(QVA_openRemoteGatewayConnection),
    F(QVA_closeGatewayConnection), F(QVA_closeAllGatewayConnections), F(QVA_ECI_Execute), F(QVA_ECI_Execute_Channel),
    F(QVA_listSystems), F(ECI_createChannel), F(ECI_getChannelName), F(ECI_deleteChannel), F(ECI_deleteAllChannels),
    F(QVA_ECI_dumpChannels), F(ECI_createContainer), F(ECI_setContainerData), F(ECI_getContainerData),
    F(ECI_getContainerInfo), F(ECI_getFirstContainer), F(ECI_getNextContainer), F(ECI_deleteContainer),
    F(getCurrentCcsid)};
/* clang-format on */

int main(void) {
  char name[QVA_RC_STRING_SIZE];
  char *version = NULL;
  ECI_PARMS parms;
  QvaChannel *channel = NULL;
  size_t i;
  int ok = 1;

  for (i = 0; i < sizeof kInterface / sizeof kInterface[0]; ++i) ok = ok && kInterface[i] != NULL;
  memset(&parms, 0, sizeof parms);
  ok = ok && strcmp(QVA_getRcStringECI(ECI_ERR_INVALID_NAME, name), "ECI_ERR_INVALID_NAME") == 0 &&
       QVA_getDLLVersion(&version) == QVA_OK && strcmp(version, "8.0.0.1") == 0 &&
       QVA_ECI_Execute(NULL, &parms) == QVA_ERR_NULLGWTOK && ECI_createChannel("APP", &channel) == ECI_NO_ERROR &&
       ECI_deleteChannel(&channel) == ECI_NO_ERROR && CodeSetTable[0].ccsid == 1089;
  printf("%s\n", ok ? "passed" : "FAILED");
  return ok ? 0 : 1;
}
