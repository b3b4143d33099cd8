// Built against an installed qvaclient only (find_package): calls ECHO on the
// Gateway at 127.0.0.1:PORT, then lists its servers, one per line. Exits 0
// only when both work.
#include <qvaclient/qvaclient.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

int fail(const char* what, int rc) {
  std::array<char, QVA_RC_STRING_SIZE> name{};
  std::fprintf(stderr, "%s: rc=%d %s\n", what, rc, QVA_getRcString(rc, name.data()));
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s PORT\n", argv[0]);
    return 2;
  }
  QvaGatewayToken* gw = nullptr;
  int rc = QVA_openRemoteGatewayConnection("127.0.0.1", std::atoi(argv[1]), &gw, 10);
  if (rc != QVA_OK) return fail("open", rc);

  constexpr std::string_view sent = "installed tree, C++";
  std::array<char, 32> data{};
  std::memcpy(data.data(), sent.data(), sent.size());
  ECI_PARMS parms{};
  parms.eci_call_type = ECI_SYNC;
  parms.eci_version = ECI_VERSION_4;
  std::memcpy(parms.eci_program_name, "ECHO    ", 8);
  parms.eci_commarea = data.data();
  parms.eci_commarea_length = static_cast<short>(data.size());
  rc = QVA_ECI_Execute(gw, &parms);
  if (rc != ECI_NO_ERROR) return fail("ECHO", rc);
  if (std::string_view(data.data()) != sent) {
    std::fprintf(stderr, "ECHO returned \"%.32s\"\n", data.data());
    return 1;
  }
  std::printf("ECHO: %s\n", data.data());

  std::array<QVA_SYSTEM_ENTRY, 8> list{};
  auto systems = static_cast<unsigned short>(list.size());
  rc = QVA_listSystems(gw, &systems, list.data());
  if (rc != QVA_OK) return fail("list", rc);
  for (unsigned short i = 0; i < systems; ++i) std::printf("server %s: %s\n", list[i].SystemName, list[i].Description);

  rc = QVA_closeGatewayConnection(&gw);
  if (rc != QVA_OK) return fail("close", rc);
  return 0;
}
