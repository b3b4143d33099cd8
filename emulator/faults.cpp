#include "faults.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string>

namespace qvaemu {

namespace {

constexpr int32_t kHugeDataLength = 0x7FFFFFF0;
constexpr size_t kHugeDataSent = 8;
constexpr int32_t kHugeEntryCount = 0x7FFFFFFF;
// channel-truncated ends the body this far into the first entry's fixed part.
constexpr size_t kTruncatedEntryBytes = 10;
constexpr uint8_t kUnknownState = 9;

struct FaultName {
  Fault fault;
  const char* name;
};
constexpr FaultName kFaultNames[] = {
    {Fault::None, "none"},
    {Fault::NeverAnswer, "never-answer"},
    {Fault::CloseBeforeAnswer, "close-before-answer"},
    {Fault::CloseMidReply, "close-mid-reply"},
    {Fault::Trickle, "trickle"},
    {Fault::MalformedHeader, "malformed-header"},
    {Fault::HugeDataLength, "huge-data-length"},
    {Fault::ExceptionFlow, "exception-flow"},
    {Fault::OversizeCommarea, "oversize-commarea"},
    {Fault::OversizeServerList, "oversize-server-list"},
    {Fault::ChannelReturnOnCommarea, "channel-return-on-commarea"},
    {Fault::ChannelLyingLength, "channel-lying-length"},
    {Fault::ChannelUnknownState, "channel-unknown-state"},
    {Fault::ChannelTruncated, "channel-truncated"},
    {Fault::ChannelDeleteUnknown, "channel-delete-unknown"},
    {Fault::ChannelHugeCount, "channel-huge-count"},
    {Fault::SlowClose, "slow-close"},
};

std::string foldName(std::string_view s) {
  std::string out;
  for (char c : s)
    if (c != '-' && c != '_') out.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
  return out;
}

wire::Container ownedEntry(const char* name, uint8_t state, int32_t ccsid, std::string_view text) {
  auto keep = std::make_shared<const std::vector<uint8_t>>(text.begin(), text.end());
  wire::Container c;
  c.name = wire::name16(name);
  c.state = state;
  c.type = wire::kChar;
  c.ccsid = ccsid;
  c.data = *keep;
  c.keep = std::move(keep);
  return c;
}

// A return flow with one ADDED character container "RESULT" holding "OK".
wire::Channel strayReturnFlow() {
  wire::Channel flow;
  flow.name = wire::name16("QVARETURN");
  flow.ccsid = 819;
  flow.containers.push_back(ownedEntry("RESULT", wire::kAdded, 819, "OK"));
  return flow;
}

// The entry a channel fault bends: the flow's first, or, in a flow without
// entries, an ADDED character container "FAULT" holding "FAULT".
wire::Container& firstEntry(wire::Channel& flow) {
  if (flow.containers.empty()) flow.containers.push_back(ownedEntry("FAULT", wire::kAdded, flow.ccsid, "FAULT"));
  return flow.containers.front();
}

void bendReturnFlow(Fault fault, uint32_t extraBytes, wire::Channel& flow) {
  switch (fault) {
    case Fault::ChannelLyingLength: {
      // The lying entry is the last thing in the message, so the message
      // holds extraBytes fewer bytes than the entry claims.
      wire::Container first = firstEntry(flow);
      if (!wire::carriesData(first.state)) first.state = wire::kModified;
      first.lengthSurplus = extraBytes;
      flow.containers = {std::move(first)};
      break;
    }
    case Fault::ChannelUnknownState:
      firstEntry(flow).state = kUnknownState;
      break;
    case Fault::ChannelTruncated:
      firstEntry(flow);  // bendProgramBody cuts into it
      break;
    case Fault::ChannelDeleteUnknown:
      flow.containers.insert(flow.containers.begin(), ownedEntry("NOSUCHCONT", wire::kDeleted, flow.ccsid, ""));
      break;
    case Fault::ChannelHugeCount: {
      wire::Container first = firstEntry(flow);
      first.state = wire::kUnchanged;
      flow.containers = {std::move(first)};
      flow.announcedCount = kHugeEntryCount;
      break;
    }
    default:
      break;
  }
}

std::vector<uint8_t> flat(const Reply& r) {
  auto bytes = wire::encodeHeader(r.header);
  const auto body = r.body.flat();
  bytes.insert(bytes.end(), body.begin(), body.end());
  return bytes;
}

}  // namespace

std::optional<Fault> faultFromName(std::string_view name) {
  const std::string folded = foldName(name);
  for (const auto& f : kFaultNames)
    if (foldName(f.name) == folded) return f.fault;
  return std::nullopt;
}

const char* faultName(Fault fault) {
  for (const auto& f : kFaultNames)
    if (f.fault == fault) return f.name;
  return "unknown";
}

bool FaultWindow::open(size_t message) const {
  if (plan_.fault == Fault::None || message < static_cast<size_t>(std::max(0, plan_.afterMessages))) return false;
  return plan_.messages <= 0 || bent_ < static_cast<size_t>(plan_.messages);
}

bool bendsAnyReply(Fault fault) {
  switch (fault) {
    case Fault::NeverAnswer:
    case Fault::CloseBeforeAnswer:
    case Fault::CloseMidReply:
    case Fault::Trickle:
    case Fault::MalformedHeader:
    case Fault::HugeDataLength:
    case Fault::ExceptionFlow:
      return true;
    default:
      return false;
  }
}

bool bendProgramReply(const FaultPlan& plan, const wire::EciRequest& req, wire::ProgramReply& reply) {
  switch (plan.fault) {
    case Fault::OversizeCommarea: {
      if (!reply.sendData) return false;
      // The reply claims, and carries, more than the caller's COMMAREA holds.
      const size_t n = static_cast<size_t>(req.commareaLength) + plan.extraBytes;
      reply.data.resize(n, 0xEE);
      reply.commareaLength = static_cast<int32_t>(n);
      reply.replyDataLength = static_cast<int32_t>(n);
      return true;
    }
    case Fault::ChannelReturnOnCommarea:
      if (req.channel) return false;
      reply.channel = strayReturnFlow();
      return true;
    case Fault::ChannelLyingLength:
    case Fault::ChannelUnknownState:
    case Fault::ChannelTruncated:
    case Fault::ChannelDeleteUnknown:
    case Fault::ChannelHugeCount:
      if (!req.channel || !reply.channel) return false;
      bendReturnFlow(plan.fault, plan.extraBytes, *reply.channel);
      return true;
    default:
      return false;
  }
}

void bendProgramBody(Fault fault, const wire::EciRequest& req, wire::Body& body, size_t flowOffset) {
  if (fault == Fault::ChannelTruncated && req.channel)
    body.truncate(flowOffset + wire::kChannelFixed + kTruncatedEntryBytes);
}

wire::ServerListReply oversizeServerList(const eci::Config& config, int32_t capacity, uint32_t extraBytes) {
  const size_t cap = capacity < 0 ? 0 : static_cast<size_t>(capacity);
  const size_t extra = std::max<size_t>(1, (extraBytes + wire::kEntrySize - 1) / wire::kEntrySize);
  wire::ServerListReply list;
  for (size_t i = 0; i < cap + extra; ++i) {
    if (i < config.servers.size()) {
      wire::appendServerEntry(list.entries, config.servers[i].name, config.servers[i].description);
    } else {
      char name[16];
      std::snprintf(name, sizeof name, "EXTRA%03zu", i % 1000);
      wire::appendServerEntry(list.entries, name, "Entry beyond the caller's capacity");
    }
  }
  list.systemCount = static_cast<int32_t>(cap + extra);
  return list;
}

Next transmit(Link& link, Reply& reply, Fault fault, const wire::Header& request) {
  switch (fault) {
    case Fault::NeverAnswer:
      // Keep reading, so later bytes are recorded and a close is seen.
      return Next::Silence;
    case Fault::CloseBeforeAnswer:
      return Next::Close;
    case Fault::CloseMidReply: {
      auto bytes = flat(reply);
      const size_t head = bytes.size() - reply.body.size();
      bytes.resize(reply.body.size() == 0 ? head / 2 : head + reply.body.size() / 2);
      return link.send(bytes) ? Next::Close : Next::Stop;
    }
    case Fault::Trickle:
      if (!link.trickle(flat(reply))) return Next::Stop;
      return reply.closeAfter ? Next::Close : Next::CarryOn;
    case Fault::MalformedHeader: {
      wire::Header bad = reply.header;
      bad.magic = 0x42414421;  // "BAD!"
      bad.name.assign(request.name.size() + 2, 'X');
      bad.dataLength = 0;
      return link.send(wire::encodeHeader(bad)) ? Next::Close : Next::Stop;
    }
    case Fault::HugeDataLength: {
      wire::Header huge = reply.header;
      huge.dataLength = kHugeDataLength;
      auto bytes = wire::encodeHeader(huge);
      auto few = reply.body.flat();
      few.resize(kHugeDataSent, 0);
      bytes.insert(bytes.end(), few.begin(), few.end());
      return link.send(bytes) ? Next::Close : Next::Stop;
    }
    case Fault::ExceptionFlow: {
      Reply ex = exceptionReply(request, ExceptionReason::Injected);
      ex.closeAfter = reply.closeAfter;
      reply = std::move(ex);
      break;
    }
    default:
      break;
  }
  if (reply.delay.count() > 0 && !link.wait(reply.delay)) return Next::Stop;
  if (!link.send(reply.header, reply.body)) return Next::Stop;
  return reply.closeAfter ? Next::Close : Next::CarryOn;
}

}  // namespace qvaemu
