#include "containers.h"

#include <cerrno>
#include <cstring>

#include "common.h"
#include "json.h"

namespace qvacall {

namespace {

constexpr size_t kExcerptBytes = 16;

const char *typeName(uint32_t type) {
  switch (type) {
    case ECI_BIT:
      return "BIT";
    case ECI_CHAR:
      return "CHAR";
    default:
      return "?";
  }
}

void printContainer(QvaChannel *channel, const ContainerInfo &info) {
  uint8_t bytes[kExcerptBytes];
  uint32_t got = 0;
  int rc = ECI_getContainerData(channel, info.name, bytes, sizeof bytes, 0, &got);
  std::string hex;
  std::string text;
  if (rc != ECI_NO_ERROR) {
    hex = "rc=" + std::to_string(rc) + " " + rcName(rc);
  }
  for (uint32_t i = 0; i < got; ++i) {
    char pair[4];
    std::snprintf(pair, sizeof pair, "%s%02X", i == 0 ? "" : " ", bytes[i]);
    hex += pair;
    text += bytes[i] >= 0x20 && bytes[i] < 0x7F ? static_cast<char>(bytes[i]) : '.';
  }
  const uint32_t length = info.dataLength;
  const bool more = rc == ECI_NO_ERROR && length > got;
  if (more) hex += " ...";
  std::printf("  %-16s  %-4s  %5u  %9u  %-51s  |%s|%s\n", info.name, typeName(info.type),
              static_cast<unsigned>(info.ccsid), static_cast<unsigned>(length), hex.c_str(), text.c_str(),
              more ? "..." : "");
}

// The channel's name and its containers' descriptions; false, told on
// standard error, when it cannot be read at all.
bool readChannel(QvaChannel *channel, char (&name)[17], std::vector<ContainerInfo> *containers) {
  int rc = ECI_getChannelName(channel, name);
  if (rc != ECI_NO_ERROR) {
    std::fprintf(stderr, "qva-call: cannot read the channel: rc=%d %s\n", rc, rcName(rc).c_str());
    return false;
  }
  ContainerInfo info{};
  for (rc = ECI_getFirstContainer(channel, &info); rc == ECI_NO_ERROR; rc = ECI_getNextContainer(channel, &info)) {
    containers->push_back(info);
  }
  if (rc != ECI_ERR_ENDOFCONTAINERS) {
    std::fprintf(stderr, "qva-call: cannot list the containers: rc=%d %s\n", rc, rcName(rc).c_str());
  }
  return true;
}

void containerJson(QvaChannel *channel, const ContainerInfo &info, JsonWriter &json) {
  std::vector<uint8_t> data(info.dataLength);
  uint32_t got = 0;
  int rc =
      data.empty() ? ECI_NO_ERROR : ECI_getContainerData(channel, info.name, data.data(), info.dataLength, 0, &got);
  if (rc != ECI_NO_ERROR) {
    std::fprintf(stderr, "qva-call: container \"%s\": rc=%d %s\n", info.name, rc, rcName(rc).c_str());
    got = 0;
  }
  json.beginObject().field("name", info.name).field("type", typeName(info.type));
  json.field("ccsid", static_cast<long long>(info.ccsid)).field("length", static_cast<long long>(info.dataLength));
  json.field("hex", hexDigits(data.data(), got)).key("text");
  if (info.type == ECI_CHAR)
    json.string(std::string_view(reinterpret_cast<const char *>(data.data()), got));
  else
    json.null();
  json.endObject();
}

}  // namespace

ChannelOptions::Parse ChannelOptions::take(int argc, char **argv, int *i) {
  const std::string arg = argv[*i];
  auto usageError = [](const std::string &message) {
    std::fprintf(stderr, "qva-call: %s\n", message.c_str());
    return Parse::UsageError;
  };
  auto value = [&]() -> const char * {
    if (*i + 1 >= argc) return nullptr;
    return argv[++*i];
  };
  auto modifier = [&]() {
    if (nextType_ && (arg == "--char" || arg == "--bit")) {
      return usageError("give --char or --bit once per container");
    }
    if ((arg == "--bit" && nextCcsid_) || (arg == "--ccsid" && nextType_ == ECI_BIT)) {
      return usageError("--ccsid goes with CHAR containers, not with --bit");
    }
    pendingModifier_ = arg;
    return Parse::Taken;
  };

  if (arg == "--channel") {
    const char *v = value();
    if (v == nullptr) return usageError(arg + " needs a value");
    channelName_ = v;
    channelCall_ = true;
    return Parse::Taken;
  }
  if (arg == "--char" || arg == "--bit") {
    Parse parsed = modifier();
    if (parsed == Parse::Taken) nextType_ = arg == "--char" ? ECI_CHAR : ECI_BIT;
    return parsed;
  }
  if (arg == "--ccsid") {
    const char *v = value();
    int ccsid = 0;
    if (v == nullptr || !parseInt(v, 0, 2147483647L, &ccsid)) {
      return usageError(arg + " takes a whole number from 0 to 2147483647");
    }
    if (nextCcsid_) return usageError("give --ccsid once per container");
    Parse parsed = modifier();
    if (parsed == Parse::Taken) nextCcsid_ = ccsid;
    return parsed;
  }

  int32_t defaultType = ECI_BIT;
  const char *form = nullptr;
  if (arg == "--container") {
    defaultType = ECI_CHAR;
    form = "NAME=TEXT";
  } else if (arg == "--container-hex") {
    form = "NAME=HEX";
  } else if (arg == "--container-file") {
    form = "NAME=PATH";
  } else {
    return Parse::NotMine;
  }
  const char *v = value();
  const char *equals = v == nullptr ? nullptr : std::strchr(v, '=');
  if (equals == nullptr) return usageError(arg + " takes " + form);

  ContainerSpec wanted;
  wanted.name.assign(v, equals);
  const char *content = equals + 1;
  if (arg == "--container") {
    wanted.data.assign(content, content + std::strlen(content));
  } else if (arg == "--container-hex") {
    if (!parseHex(content, &wanted.data)) {
      return usageError(arg + " takes NAME=HEX with pairs of hex digits");
    }
  } else if (!readFile(content, &wanted.data)) {
    return usageError("cannot read " + std::string(content) + ": " + std::strerror(errno));
  }
  if (wanted.data.size() > UINT32_MAX) return usageError(std::string(content) + " holds more than 4 GiB");
  wanted.type = nextType_.value_or(nextCcsid_ ? ECI_CHAR : defaultType);
  wanted.ccsid = nextCcsid_.value_or(0);
  containers_.push_back(std::move(wanted));
  nextType_.reset();
  nextCcsid_.reset();
  pendingModifier_.clear();
  channelCall_ = true;
  return Parse::Taken;
}

bool ChannelOptions::finish() const {
  if (pendingModifier_.empty()) return true;
  std::fprintf(stderr, "qva-call: %s needs a --container option after it\n", pendingModifier_.c_str());
  return false;
}

void channelUsage(FILE *out) {
  std::fputs(
      "Channel call (--channel or any --container option makes one; no COMMAREA):\n"
      "  --channel NAME          channel name (default QVACALL)\n"
      "  --container NAME=TEXT   a CHAR container holding TEXT\n"
      "  --container-hex NAME=HEX\n"
      "                          a BIT container holding HEX (pairs of hex digits,\n"
      "                          spaces allowed)\n"
      "  --container-file NAME=PATH\n"
      "                          a BIT container holding the file's bytes\n"
      "  --char, --bit           make the next container CHAR or BIT\n"
      "  --ccsid N               give the next container CCSID N (makes it CHAR)\n"
      "  Containers are created in the order given; NAME ends at the first '='. A CHAR\n"
      "  container without --ccsid takes the channel's CCSID, which the first CHAR\n"
      "  container decides (from LANG when it has none). A name the library refuses\n"
      "  ends the run with its result before anything is sent.\n"
      "Output of a channel call: the rc= line, \"abend code: XXXX\" when the program\n"
      "abended, \"LUW token: N\", then the channel the call returned:\n"
      "  channel NAME, K containers\n"
      "and one line per container, newest first as the library lists them: the name\n"
      "(16 wide), BIT or CHAR, the CCSID, the length in bytes, the first 16 bytes in\n"
      "hex, and the same bytes as text between '|' (printable ASCII, others as '.');\n"
      "\"...\" follows the hex and the text when the container holds more.\n"
      "Channel programs of the embedded emulator:\n"
      "  CHNOOP                  returns every container unchanged\n"
      "  CHECHO                  returns every container as modified, same data\n"
      "  CHADD                   adds CHAR container RESULT: \"Processed N containers\"\n"
      "  CHUPPER                 upper-cases the CHAR containers in place\n"
      "  CHGROW                  doubles each container's data\n"
      "  CHDELETE                deletes the first container sent (the newest)\n"
      "  CHMIX                   deletes, modifies and adds (BIT container MIXED)\n"
      "  CHBIG                   returns BIT container PAYLOAD of as many bytes as\n"
      "                          container SIZE says in decimal\n",
      out);
}

int buildChannel(const ChannelOptions &options, QvaChannel **channel) {
  int rc = ECI_createChannel(options.channelName().c_str(), channel);
  if (rc != ECI_NO_ERROR) {
    std::fprintf(stderr, "qva-call: channel \"%s\": rc=%d %s\n", options.channelName().c_str(), rc, rcName(rc).c_str());
    return rc;
  }
  for (const ContainerSpec &wanted : options.containers()) {
    rc = ECI_createContainer(*channel, wanted.name.c_str(), wanted.type, wanted.ccsid, wanted.data.data(),
                             static_cast<uint32_t>(wanted.data.size()));
    if (rc != ECI_NO_ERROR) {
      std::fprintf(stderr, "qva-call: container \"%s\": rc=%d %s\n", wanted.name.c_str(), rc, rcName(rc).c_str());
      ECI_deleteChannel(channel);
      return rc;
    }
  }
  return ECI_NO_ERROR;
}

void printChannel(QvaChannel *channel) {
  char name[17] = {};
  std::vector<ContainerInfo> containers;
  if (!readChannel(channel, name, &containers)) return;
  // The channel's own CCSID is the library's; each container shows its own.
  std::printf("channel %s, %zu container%s\n", name, containers.size(), containers.size() == 1 ? "" : "s");
  for (const ContainerInfo &container : containers) printContainer(channel, container);
}

void channelJson(QvaChannel *channel, JsonWriter &json) {
  char name[17] = {};
  std::vector<ContainerInfo> containers;
  json.key("channel");
  if (!readChannel(channel, name, &containers)) {
    json.null();
    return;
  }
  json.beginObject().field("name", name).key("containers").beginArray();
  for (const ContainerInfo &container : containers) containerJson(channel, container, json);
  json.endArray().endObject();
}

}  // namespace qvacall
