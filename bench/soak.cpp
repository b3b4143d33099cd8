// qva-soak: long runs against a Gateway in another process, with this
// process's resident memory read before, during and after. Calls and
// open/close cycles that leak show as a rising column; see scripts/soak.
//
//   qva-soak PORT [CALLS [CYCLES]]   (defaults: 1000000 calls, 10000 cycles)
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qvaclient/qvaclient.h"

namespace {

// Resident set size in KiB, from /proc/self/statm (pages).
long residentKiB() {
  long pages = 0, resident = 0;
  FILE *statm = std::fopen("/proc/self/statm", "r");
  if (statm == nullptr) return -1;
  const int read = std::fscanf(statm, "%ld %ld", &pages, &resident);
  std::fclose(statm);
  return read == 2 ? resident * (sysconf(_SC_PAGESIZE) / 1024) : -1;
}

void blank(char *field, size_t size, const char *text) {
  std::memset(field, ' ', size);
  std::memcpy(field, text, std::min(size, std::strlen(text)));
}

int open(int port, QvaGatewayToken **tok) { return QVA_openRemoteGatewayConnection("127.0.0.1", port, tok, 10); }

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: qva-soak PORT [CALLS [CYCLES]]\n");
    return 2;
  }
  const int port = std::atoi(argv[1]);
  const long calls = argc > 2 ? std::atol(argv[2]) : 1000000;
  const long cycles = argc > 3 ? std::atol(argv[3]) : 10000;
  const long warmUp = std::min(calls / 100, 10000L);

  QvaGatewayToken *tok = nullptr;
  if (int rc = open(port, &tok); rc != QVA_OK) {
    std::fprintf(stderr, "qva-soak: open rc=%d\n", rc);
    return 1;
  }
  char commarea[256];
  ECI_PARMS parms;
  std::memset(&parms, 0, sizeof parms);
  parms.eci_call_type = ECI_SYNC;
  parms.eci_version = ECI_VERSION_4;
  blank(parms.eci_program_name, sizeof parms.eci_program_name, "ECHO");
  blank(parms.eci_system_name, sizeof parms.eci_system_name, "QVADEMO");
  blank(parms.eci_userid, sizeof parms.eci_userid, "");
  blank(parms.eci_password, sizeof parms.eci_password, "");
  parms.eci_commarea = commarea;

  std::printf("%-28s %12s\n", "after", "RSS KiB");
  long failures = 0;
  for (long i = 0; i < calls; ++i) {
    // Lengths and contents change from call to call.
    const int length = 1 + static_cast<int>(i % sizeof commarea);
    std::snprintf(commarea, sizeof commarea, "call %ld", i);
    parms.eci_commarea_length = static_cast<short>(length);
    if (QVA_ECI_Execute(tok, &parms) != ECI_NO_ERROR) ++failures;
    if (i + 1 == warmUp || (i + 1) % (calls / 10 > 0 ? calls / 10 : 1) == 0)
      std::printf("%-28s %12ld\n", (std::to_string(i + 1) + " calls").c_str(), residentKiB());
  }
  QVA_closeGatewayConnection(&tok);
  for (long i = 0; i < cycles; ++i) {
    if (open(port, &tok) != QVA_OK || QVA_closeGatewayConnection(&tok) != QVA_OK) ++failures;
    if ((i + 1) % (cycles / 5 > 0 ? cycles / 5 : 1) == 0)
      std::printf("%-28s %12ld\n", (std::to_string(i + 1) + " open/close cycles").c_str(), residentKiB());
  }
  std::printf("failures: %ld\n", failures);
  return failures == 0 ? 0 : 1;
}
