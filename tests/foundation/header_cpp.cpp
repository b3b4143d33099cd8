// A C++ application that includes only the umbrella header and links the
// shared library; also pins the packed layout of the parameter block.
#include <qvaclient/qvaclient.h>

#include <cstddef>
#include <cstdio>
#include <cstring>

static_assert(sizeof(void *) != 8 || sizeof(ECI_PARMS) == 94, "ECI_PARMS is packed: 94 bytes with 8-byte pointers");
static_assert(sizeof(void *) != 4 || sizeof(ECI_PARMS) == 86, "ECI_PARMS is packed: 86 bytes with 4-byte pointers");
static_assert(offsetof(ECI_PARMS, eci_call_type) == 0);
static_assert(offsetof(ECI_PARMS, eci_program_name) == 2);
static_assert(offsetof(ECI_PARMS, eci_userid) == 10);
static_assert(offsetof(ECI_PARMS, eci_password) == 26);
static_assert(offsetof(ECI_PARMS, eci_transid) == 42);
static_assert(offsetof(ECI_PARMS, eci_abend_code) == 46);
static_assert(offsetof(ECI_PARMS, eci_commarea) == 50);
static_assert(offsetof(ECI_PARMS, eci_commarea_length) == 50 + sizeof(void *));
static_assert(offsetof(ECI_PARMS, eci_timeout) == 52 + sizeof(void *));
static_assert(offsetof(ECI_PARMS, eci_extend_mode) == 54 + sizeof(void *));
static_assert(offsetof(ECI_PARMS, eci_luw_token) == 56 + sizeof(void *));
static_assert(offsetof(ECI_PARMS, eci_version) == 60 + sizeof(void *));
static_assert(offsetof(ECI_PARMS, eci_system_name) == 62 + sizeof(void *));
static_assert(offsetof(ECI_PARMS, eci_tpn) == 70 + sizeof(void *));
static_assert(offsetof(ECI_PARMS, eci_send_length) == 74 + sizeof(void *));
static_assert(offsetof(ECI_PARMS, eci_receive_length) == 76 + sizeof(void *));
static_assert(offsetof(ECI_PARMS, eci_channel) == 78 + sizeof(void *));
static_assert(sizeof(QVA_SYSTEM_ENTRY) == 70);
static_assert(offsetof(QVA_SYSTEM_ENTRY, Description) == 9);
static_assert(sizeof(ECI_PARMS::eci_luw_token) == 4);

namespace {

int failures = 0;

void check(bool ok, const char *what) {
  if (!ok) {
    std::printf("FAILED: %s\n", what);
    ++failures;
  }
}

}  // namespace

int main() {
  char name[QVA_RC_STRING_SIZE];
  const char *version = nullptr;
  int level = -1;
  QvaGatewayToken *token = nullptr;
  unsigned short systems = 1;
  QVA_SYSTEM_ENTRY list[1];

  check(std::strcmp(QVA_getRcString(QVA_ERR_GATEWAY_EXCEPTION, name), "QVA_ERR_GATEWAY_EXCEPTION") == 0,
        "QVA_getRcString");
  check(QVA_getDLLVersion(&version) == QVA_OK && std::strcmp(version, "8.0.0.1") == 0, "QVA_getDLLVersion");
  check(QVA_getAPIVersion(&version) == QVA_OK && std::strcmp(version, "2.1.0.0") == 0, "QVA_getAPIVersion");
  check(QVA_setAPITraceLevel(6) == QVA_ERR_TRACELEVEL, "QVA_setAPITraceLevel(6)");
  check(QVA_getAPITraceLevel(&level) == QVA_OK && level == 0, "QVA_getAPITraceLevel");
  check(QVA_setAPITraceFile(nullptr) == QVA_OK, "QVA_setAPITraceFile(NULL)");
  check(QVA_openRemoteGatewayConnection("127.0.0.1", 0, &token, 1) == QVA_ERR_BADPORT, "open with port 0");
  check(QVA_listSystems(nullptr, &systems, list) == QVA_ERR_NULLGWTOK, "QVA_listSystems(NULL token)");
  check(QVA_closeAllGatewayConnections() == QVA_OK, "QVA_closeAllGatewayConnections");

  std::printf("%d failed\n", failures);
  return failures == 0 ? 0 : 1;
}
