#include "channels.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>

#include "qvaemu/gateway.h"

namespace qvaemu::channels {

namespace {

using wire::Channel;
using wire::Container;

// The entry as it came, in another state. Its data range still points into the
// request: an UNCHANGED or DELETED entry sends none of it, only its length.
Container as(const Container& c, uint8_t state) {
  Container e = c;
  e.state = state;
  return e;
}

// The entry in another state with new data, which the entry owns.
Container with(const Container& c, uint8_t state, std::vector<uint8_t> data) {
  auto keep = std::make_shared<const std::vector<uint8_t>>(std::move(data));
  Container e = c;
  e.state = state;
  e.data = *keep;
  e.keep = std::move(keep);
  return e;
}

Container added(const char* name, uint8_t type, int32_t ccsid, std::vector<uint8_t> data) {
  Container c;
  c.name = wire::name16(name);
  c.type = type;
  c.ccsid = ccsid;
  return with(c, wire::kAdded, std::move(data));
}

std::string nameOf(const Container& c) { return wire::trimField(c.name); }

std::vector<uint8_t> upper(std::span<const uint8_t> d) {
  std::vector<uint8_t> out(d.begin(), d.end());
  for (auto& b : out)
    if (b >= 'a' && b <= 'z') b = static_cast<uint8_t>(b - 'a' + 'A');
  return out;
}

// The data twice over, so the length always changes: nothing becomes "!".
std::vector<uint8_t> doubled(std::span<const uint8_t> d) {
  if (d.empty()) return {'!'};
  std::vector<uint8_t> out(d.begin(), d.end());
  out.insert(out.end(), d.begin(), d.end());
  return out;
}

void noop(const Channel& in, Outcome& out) { out.flow = unchangedFlow(in); }

void echo(const Channel& in, Outcome& out) {
  for (const auto& c : in.containers) out.flow.containers.push_back(as(c, wire::kModified));
}

void add(const Channel& in, Outcome& out) {
  out.flow = unchangedFlow(in);
  const std::string text = "Processed " + std::to_string(in.containers.size()) + " containers";
  out.flow.containers.push_back(added("RESULT", wire::kChar, in.ccsid, {text.begin(), text.end()}));
}

void upperCase(const Channel& in, Outcome& out) {
  for (const auto& c : in.containers)
    out.flow.containers.push_back(c.type == wire::kChar ? with(c, wire::kModified, upper(c.data))
                                                        : as(c, wire::kUnchanged));
}

void grow(const Channel& in, Outcome& out) {
  for (const auto& c : in.containers) out.flow.containers.push_back(with(c, wire::kModified, doubled(c.data)));
}

void deleteFirst(const Channel& in, Outcome& out) {
  for (size_t i = 0; i < in.containers.size(); ++i)
    out.flow.containers.push_back(as(in.containers[i], i == 0 ? wire::kDeleted : wire::kUnchanged));
}

void mix(const Channel& in, Outcome& out) {
  auto& flow = out.flow.containers;
  for (size_t i = 0; i < in.containers.size(); ++i) {
    const Container& c = in.containers[i];
    if (i == 0)
      flow.push_back(as(c, wire::kDeleted));
    else if (i == 1)
      flow.push_back(with(c, wire::kModified, upper(c.data)));
    else if (i == 2)
      flow.push_back(with(c, wire::kModified, doubled(c.data)));
    else
      flow.push_back(as(c, wire::kUnchanged));
  }
  flow.push_back(added("MIXED", wire::kBit, 0, {0xDE, 0xAD, 0xBE, 0xEF}));
}

// CHBIG's bytes, byte i = i & 0xFF: a whole number of periods, so that it
// repeats seamlessly. Built once, for every Gateway of the process.
const std::vector<uint8_t>& patternBlock() {
  static const std::vector<uint8_t> block = [] {
    std::vector<uint8_t> b(size_t{1} << 20);
    for (size_t i = 0; i < b.size(); ++i) b[i] = static_cast<uint8_t>(i & 0xFF);
    return b;
  }();
  return block;
}

// ASCII decimal, trailing NULs and blanks ignored, at most kMaxBigSize.
std::optional<size_t> bigSize(std::span<const uint8_t> d) {
  size_t n = d.size();
  while (n > 0 && (d[n - 1] == 0 || d[n - 1] == ' ')) --n;
  if (n == 0 || n > 10) return std::nullopt;
  uint64_t v = 0;
  for (size_t i = 0; i < n; ++i) {
    if (d[i] < '0' || d[i] > '9') return std::nullopt;
    v = v * 10 + (d[i] - '0');
  }
  if (v > kMaxBigSize) return std::nullopt;
  return static_cast<size_t>(v);
}

void big(const Channel& in, Outcome& out) {
  auto sizeEntry =
      std::find_if(in.containers.begin(), in.containers.end(), [](const Container& c) { return nameOf(c) == "SIZE"; });
  const auto n = sizeEntry == in.containers.end() ? std::nullopt : bigSize(sizeEntry->data);
  if (!n) {
    out.rc = kEciErrInvalidDataLength;
    return;
  }
  // The payload is the one pattern block over and over: nothing is built or
  // copied per call, however large.
  const std::vector<uint8_t>& block = patternBlock();
  Container payload;
  payload.data = std::span<const uint8_t>(block).first(std::min(*n, block.size()));
  payload.repeatedTo = *n;
  payload.type = wire::kBit;
  payload.ccsid = 0;
  bool replaced = false;
  for (const auto& c : in.containers) {
    if (nameOf(c) != "PAYLOAD") {
      out.flow.containers.push_back(as(c, wire::kUnchanged));
      continue;
    }
    Container e = payload;
    e.name = c.name;
    e.state = wire::kModified;
    out.flow.containers.push_back(std::move(e));
    replaced = true;
  }
  if (!replaced) {
    payload.name = wire::name16("PAYLOAD");
    payload.state = wire::kAdded;
    out.flow.containers.push_back(std::move(payload));
  }
}

struct Program {
  const char* name;
  void (*run)(const Channel&, Outcome&);
};
constexpr Program kPrograms[] = {
    {"CHNOOP", noop}, {"CHECHO", echo},          {"CHADD", add}, {"CHUPPER", upperCase},
    {"CHGROW", grow}, {"CHDELETE", deleteFirst}, {"CHMIX", mix}, {"CHBIG", big},
};

const Program* find(std::string_view name) {
  for (const auto& p : kPrograms)
    if (name == p.name) return &p;
  return nullptr;
}

}  // namespace

bool isChannelProgram(std::string_view program) { return find(program) != nullptr; }

Outcome run(std::string_view program, const Channel& channel) {
  Outcome out;
  out.flow = emptyFlow(channel);
  if (const Program* p = find(program)) p->run(channel, out);
  if (out.rc != 0) out.flow = emptyFlow(channel);
  return out;
}

Channel emptyFlow(const Channel& channel) {
  Channel flow;
  flow.name = channel.name;
  flow.ccsid = channel.ccsid;
  return flow;
}

Channel unchangedFlow(const Channel& channel) {
  Channel flow = emptyFlow(channel);
  for (const auto& c : channel.containers) flow.containers.push_back(as(c, wire::kUnchanged));
  return flow;
}

}  // namespace qvaemu::channels
