// qva-call: calls a server program with a COMMAREA or a channel, or lists the
// servers, through a Gateway. With no --host it starts the embedded Gateway
// emulator on loopback, so it works on a machine with no Gateway at all.

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common.h"
#include "containers.h"
#include "json.h"
#include "options.h"
#include "qvaclient/qvaclient.h"
#include "qvaemu/gateway.h"

namespace {

using qvacall::CallOptions;
using qvacall::JsonWriter;
using qvacall::rcName;

// A longer COMMAREA is printed as its first kShownBytes bytes.
constexpr size_t kShownBytes = 256;

// Blank padded, no terminator, cut to the field.
template <size_t N>
void setField(char (&field)[N], const std::string &text) {
  std::memset(field, ' ', N);
  std::memcpy(field, text.data(), std::min(text.size(), N));
}

void printDump(const uint8_t *data, size_t length) {
  for (size_t offset = 0; offset < length; offset += 16) {
    std::printf("  %04zx  ", offset);
    for (size_t i = 0; i < 16; ++i) {
      if (offset + i < length)
        std::printf("%02X ", data[offset + i]);
      else
        std::fputs("   ", stdout);
    }
    std::fputs(" ", stdout);
    for (size_t i = 0; i < 16 && offset + i < length; ++i) {
      unsigned char c = data[offset + i];
      std::fputc(std::isprint(c) ? c : '.', stdout);
    }
    std::fputc('\n', stdout);
  }
}

// The heading with the length and the text, trailing zeros left out, then the
// dump; of the first kShownBytes bytes only when there are more.
void printCommarea(const std::vector<uint8_t> &commarea) {
  size_t shown = std::min(commarea.size(), kShownBytes);
  std::printf("COMMAREA (%zu bytes): ", commarea.size());
  size_t shownText = shown;
  while (shownText > 0 && commarea[shownText - 1] == 0) --shownText;
  for (size_t i = 0; i < shownText; ++i) {
    unsigned char c = commarea[i];
    std::fputc(std::isprint(c) ? c : '.', stdout);
  }
  std::fputc('\n', stdout);
  printDump(commarea.data(), shown);
  if (commarea.size() > shown) std::printf("  (%zu more bytes not shown)\n", commarea.size() - shown);
}

// "length", "hex" and "text": the bytes before any trailing NULs, when they
// are printable ASCII, tab, CR or LF, else null.
void commareaJson(JsonWriter &json, const std::vector<uint8_t> &commarea) {
  size_t textLength = commarea.size();
  while (textLength > 0 && commarea[textLength - 1] == 0) --textLength;
  const bool printable =
      std::all_of(commarea.begin(), commarea.begin() + static_cast<std::ptrdiff_t>(textLength),
                  [](uint8_t c) { return (c >= 0x20 && c < 0x7F) || c == '\t' || c == '\n' || c == '\r'; });
  json.key("commarea").beginObject();
  json.field("length", commarea.size()).field("hex", qvacall::hexDigits(commarea.data(), commarea.size()));
  json.key("text");
  if (printable)
    json.string(std::string_view(reinterpret_cast<const char *>(commarea.data()), textLength));
  else
    json.null();
  json.endObject();
}

// A text field of the library, up to its first NUL and without trailing blanks.
std::string trimmed(const char *field, size_t size) {
  std::string text(field, strnlen(field, size));
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

int listServers(QvaGatewayToken *token, const CallOptions &options) {
  std::vector<QVA_SYSTEM_ENTRY> list(options.listCapacity);
  unsigned short systems = static_cast<unsigned short>(options.listCapacity);
  int rc = QVA_listSystems(token, &systems, list.data());
  const bool listed = rc == QVA_OK || rc == QVA_ERR_MORE_SYSTEMS;
  const size_t shown = listed ? std::min<size_t>(systems, list.size()) : 0;
  if (options.json) {
    JsonWriter json;
    json.beginObject().field("rc", rc).field("rc_name", rcName(rc)).field("server_count", listed ? systems : 0u);
    json.key("servers").beginArray();
    for (size_t i = 0; i < shown; ++i) {
      json.beginObject()
          .field("name", trimmed(list[i].SystemName, sizeof list[i].SystemName))
          .field("description", trimmed(list[i].Description, sizeof list[i].Description))
          .endObject();
    }
    json.endArray().endObject();
    std::printf("%s\n", json.text().c_str());
    return rc;
  }
  std::printf("rc=%d %s\n", rc, rcName(rc).c_str());
  for (size_t i = 0; i < shown; ++i) {
    std::printf("%-8.8s  %s\n", list[i].SystemName, trimmed(list[i].Description, sizeof list[i].Description).c_str());
  }
  if (systems > shown) std::printf("(%u servers in all; --list-capacity shows more)\n", systems);
  return rc;
}

// Everything but the COMMAREA and the channel.
void fillParms(ECI_PARMS &parms, const CallOptions &options) {
  std::memset(&parms, 0, sizeof parms);
  parms.eci_call_type = ECI_SYNC;
  parms.eci_version = ECI_VERSION_4;
  setField(parms.eci_program_name, options.program);
  setField(parms.eci_userid, options.user);
  setField(parms.eci_password, options.password);
  setField(parms.eci_system_name, options.server);
  if (!options.transid.empty()) setField(parms.eci_transid, options.transid);
  if (!options.tpn.empty()) setField(parms.eci_tpn, options.tpn);
  parms.eci_extend_mode = static_cast<short>(options.extendMode);
  parms.eci_luw_token = options.luwToken;
  parms.eci_timeout = static_cast<short>(options.timeout);
  parms.eci_send_length = static_cast<short>(options.sendLength);
  parms.eci_receive_length = static_cast<short>(options.receiveLength);
}

// Wipes the password, then prints the result line and, unless quiet, the
// abend code and the LUW token; or, for --json, opens the object with them.
// Returns whether the rest is to be printed.
bool printOutcome(int rc, ECI_PARMS &parms, CallOptions &options, JsonWriter &json) {
  std::memset(parms.eci_password, 0, sizeof parms.eci_password);
  std::fill(options.password.begin(), options.password.end(), '\0');
  const std::string abend(parms.eci_abend_code, strnlen(parms.eci_abend_code, sizeof parms.eci_abend_code));
  if (options.json) {
    json.beginObject().field("rc", rc).field("rc_name", rcName(rc)).key("abend_code");
    if (abend.empty())
      json.null();
    else
      json.string(abend);
    json.field("luw_token", parms.eci_luw_token);
    return true;
  }
  std::printf("rc=%d %s\n", rc, rcName(rc).c_str());
  if (options.quiet) return false;
  if (!abend.empty()) std::printf("abend code: %s\n", abend.c_str());
  std::printf("LUW token: %d\n", parms.eci_luw_token);
  return true;
}

void finishJson(JsonWriter &json) {
  json.endObject();
  std::printf("%s\n", json.text().c_str());
}

int callProgram(QvaGatewayToken *token, CallOptions &options) {
  size_t length = options.commareaLength.value_or(static_cast<int>(options.commarea.size()));
  std::vector<uint8_t> commarea(length, 0);
  // Not memcpy: either vector may be empty, its data() null.
  std::copy_n(options.commarea.begin(), std::min(length, options.commarea.size()), commarea.begin());

  ECI_PARMS parms;
  fillParms(parms, options);
  parms.eci_commarea = length > 0 ? commarea.data() : nullptr;
  parms.eci_commarea_length = static_cast<short>(length);
  int rc = QVA_ECI_Execute(token, &parms);
  JsonWriter json;
  if (!printOutcome(rc, parms, options, json)) return rc;
  if (options.json) {
    commareaJson(json, commarea);
    finishJson(json);
  } else {
    printCommarea(commarea);
  }
  return rc;
}

int callWithChannel(QvaGatewayToken *token, CallOptions &options, QvaChannel *channel) {
  ECI_PARMS parms;
  fillParms(parms, options);
  parms.eci_channel = channel;
  int rc = QVA_ECI_Execute_Channel(token, &parms);
  JsonWriter json;
  if (!printOutcome(rc, parms, options, json)) return rc;
  if (options.json) {
    qvacall::channelJson(channel, json);
    finishJson(json);
  } else {
    qvacall::printChannel(channel);
  }
  return rc;
}

// The result of a call that could not be made, for --json.
void printFailureJson(int rc) {
  JsonWriter json;
  json.beginObject().field("rc", rc).field("rc_name", rcName(rc)).endObject();
  std::printf("%s\n", json.text().c_str());
}

}  // namespace

int main(int argc, char **argv) {
  using qvacall::Parsed;
  CallOptions options;
  Parsed parsed = qvacall::parseOptions(argc, argv, &options);
  if (parsed != Parsed::Run) return parsed == Parsed::Done ? qvacall::kExitSuccess : qvacall::kExitUsage;

  if (!options.traceFile.empty() && QVA_setAPITraceFile(options.traceFile.c_str()) != QVA_OK) {
    std::fprintf(stderr, "qva-call: cannot append the trace to %s\n", options.traceFile.c_str());
    return qvacall::kExitUsage;
  }
  if (options.traceLevel >= 0) QVA_setAPITraceLevel(options.traceLevel);

  // Built before anything is started, so that a name the library refuses
  // ends the run at once.
  QvaChannel *channel = nullptr;
  if (options.channel.channelCall()) {
    int rc = qvacall::buildChannel(options.channel, &channel);
    if (rc != ECI_NO_ERROR) {
      if (options.json) printFailureJson(rc);
      return qvacall::exitStatus(rc);
    }
  }

  qvaemu::Gateway emulator;
  std::string host = options.host;
  int port = options.port;
  if (host.empty()) {
    std::string error;
    if (!emulator.start(&error)) {
      std::fprintf(stderr, "qva-call: cannot start the embedded Gateway emulator: %s\n", error.c_str());
      if (channel != nullptr) ECI_deleteChannel(&channel);
      return qvacall::kExitNoGateway;
    }
    host = "127.0.0.1";
    port = emulator.port();
    if (!options.quiet && !options.json) std::printf("embedded Gateway emulator on %s:%d\n", host.c_str(), port);
  }

  QvaGatewayToken *token = nullptr;
  int rc = QVA_openRemoteGatewayConnection(host.c_str(), port, &token, options.connectTimeout);
  if (rc != QVA_OK) {
    std::fprintf(stderr, "qva-call: cannot connect to %s:%d: rc=%d %s\n", host.c_str(), port, rc, rcName(rc).c_str());
    if (options.json) printFailureJson(rc);
    if (channel != nullptr) ECI_deleteChannel(&channel);
    return qvacall::exitStatus(rc);
  }
  if (options.list)
    rc = listServers(token, options);
  else if (channel != nullptr)
    rc = callWithChannel(token, options, channel);
  else
    rc = callProgram(token, options);
  if (channel != nullptr) ECI_deleteChannel(&channel);
  QVA_closeGatewayConnection(&token);
  emulator.stop();
  return qvacall::exitStatus(rc);
}
