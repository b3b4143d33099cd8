#include "eci.h"

#include <algorithm>
#include <cctype>

#include "channels.h"

namespace qvaemu::eci {

namespace {

struct ProgramResult {
  int32_t rc = kEciNoError;
  std::array<char, 4> abend{};
  size_t returned = 0;  // COMMAREA bytes that go back
};

std::array<char, 4> code(const char (&text)[5]) { return {text[0], text[1], text[2], text[3]}; }

bool isBlank(uint8_t b) { return b == ' ' || b == 0; }

// Milliseconds written as decimal digits at the start of the COMMAREA.
int sleepMillis(const std::vector<uint8_t>& commarea, size_t received) {
  long ms = 0;
  size_t i = 0;
  while (i < received && i < 6 && std::isdigit(commarea[i])) ms = ms * 10 + (commarea[i++] - '0');
  if (i == 0) return kDefaultSleepMs;
  return static_cast<int>(std::min<long>(ms, kMaxSleepMs));
}

const ServerEntry* findServer(const Config& config, const std::string& name) {
  if (config.servers.empty()) return nullptr;
  // An empty server name means the Gateway's default, its first server.
  if (name.empty()) return &config.servers.front();
  for (const auto& s : config.servers)
    if (s.name.substr(0, 8) == name) return &s;
  return nullptr;
}

const CannedProgram* findCanned(const Config& config, const std::string& name) {
  for (const auto& p : config.programs)
    if (p.name == name) return &p;
  return nullptr;
}

void runCanned(const CannedProgram& canned, std::vector<uint8_t>& commarea, ProgramResult& result) {
  if (!canned.abendCode.empty()) {
    result.rc = kEciErrTransactionAbend;
    std::copy_n(canned.abendCode.begin(), std::min<size_t>(canned.abendCode.size(), 4), result.abend.begin());
    return;
  }
  std::fill(commarea.begin(), commarea.end(), 0);
  std::copy_n(canned.commarea.begin(), std::min(canned.commarea.size(), commarea.size()), commarea.begin());
}

// ECHO, UPPER, ABEND, SLEEP, SHORT; any other name abends with AEI0. False
// when the wait of a SLEEP was cut short.
bool runCommareaProgram(const std::string& program, std::vector<uint8_t>& commarea, size_t received, int16_t timeout,
                        const Waiter& wait, ProgramResult& result) {
  if (program == "ECHO") {
  } else if (program == "UPPER") {
    for (auto& b : commarea)
      if (b >= 'a' && b <= 'z') b = static_cast<uint8_t>(b - 'a' + 'A');
  } else if (program == "ABEND") {
    result.rc = kEciErrTransactionAbend;
    result.abend = code("ABND");
    if (received >= 4 && std::none_of(commarea.begin(), commarea.begin() + 4, isBlank))
      result.abend = {static_cast<char>(commarea[0]), static_cast<char>(commarea[1]), static_cast<char>(commarea[2]),
                      static_cast<char>(commarea[3])};
  } else if (program == "SLEEP") {
    const int ms = sleepMillis(commarea, received);
    if (timeout > 0 && ms > timeout * 1000) {
      if (!wait(std::chrono::milliseconds(timeout * 1000))) return false;
      result.rc = kEciErrResponseTimeout;
    } else if (!wait(std::chrono::milliseconds(ms))) {
      return false;
    }
  } else if (program == "SHORT") {
    result.returned = received / 2;
  } else {
    result.rc = kEciErrTransactionAbend;
    result.abend = code("AEI0");
  }
  return true;
}

}  // namespace

int32_t Session::newToken() {
  int32_t t;
  do {
    t = tokenSource_.fetch_add(1, std::memory_order_relaxed) & 0x7FFFFFFF;
  } while (t == 0);
  return t;
}

std::optional<wire::ProgramReply> Session::call(const wire::EciRequest& req, const Waiter& wait) {
  wire::ProgramReply reply;
  reply.callType = req.callType;
  reply.luwToken = req.luwToken;
  reply.commareaLength = req.commareaLength;
  reply.sendData = !wire::carriesNoCommarea(req.extendMode);
  if (req.channel) reply.channel = channels::emptyFlow(*req.channel);
  auto fail = [&](int32_t rc, int32_t token) {
    reply.replyRc = rc;
    reply.luwToken = token;
    return reply;
  };

  const int32_t mode = req.extendMode;
  if (mode != 0 && mode != 1 && mode != 2 && mode != 4) return fail(kEciErrInvalidExtendMode, req.luwToken);
  if (!findServer(config_, wire::trimField(req.systemName))) return fail(kEciErrUnknownServer, req.luwToken);
  if (!config_.users.empty()) {
    const std::string user = wire::trimField(req.userId), password = wire::trimField(req.password);
    const bool known = std::any_of(config_.users.begin(), config_.users.end(),
                                   [&](const User& u) { return u.userId == user && u.password == password; });
    if (!known) return fail(kEciErrSecurityError, req.luwToken);
  }
  const bool inUnit = req.luwToken != 0;
  if (inUnit && units_.count(req.luwToken) == 0) return fail(kEciErrLuwToken, 0);
  if (wire::carriesNoCommarea(mode)) {
    // Commit (2) and backout (4) only end a unit; there is none to end without a token.
    if (!inUnit) return fail(kEciErrLuwToken, 0);
    units_.erase(req.luwToken);
    return fail(kEciNoError, 0);
  }

  // The program sees a COMMAREA of commareaLength bytes: what travelled, then zeros.
  std::vector<uint8_t> commarea(static_cast<size_t>(req.commareaLength), 0);
  const size_t received = std::min(req.commarea.size(), commarea.size());
  std::copy_n(req.commarea.begin(), received, commarea.begin());

  ProgramResult result;
  result.returned = commarea.size();
  std::optional<wire::Channel> flow;
  const std::string program = wire::trimField(req.programName);
  const CannedProgram* canned = findCanned(config_, program);
  if (canned != nullptr) {
    runCanned(*canned, commarea, result);
    if (req.channel) flow = channels::unchangedFlow(*req.channel);
  } else if (channels::isChannelProgram(program)) {
    // Without a channel a channel program changes nothing: the COMMAREA goes
    // back as it came.
    if (req.channel) {
      auto outcome = channels::run(program, *req.channel);
      result.rc = outcome.rc;
      flow = std::move(outcome.flow);
    }
  } else {
    if (!runCommareaProgram(program, commarea, received, req.timeout, wait, result)) return std::nullopt;
    // The channel of a COMMAREA program comes back untouched.
    if (req.channel) flow = channels::unchangedFlow(*req.channel);
  }

  if (result.rc != kEciNoError) {
    // A failed program backs its unit out: the unit ends and no data returns.
    if (inUnit) units_.erase(req.luwToken);
    reply.abendCode = result.abend;
    return fail(result.rc, 0);
  }

  size_t n = result.returned;
  if (req.hasReplyDataLength && req.replyDataLength > 0) n = std::min(n, static_cast<size_t>(req.replyDataLength));
  reply.data.assign(commarea.begin(), commarea.begin() + static_cast<std::ptrdiff_t>(n));
  reply.replyDataLength = static_cast<int32_t>(n);
  if (flow) reply.channel = std::move(flow);
  if (mode == 1) {
    if (!inUnit) {
      reply.luwToken = newToken();
      units_.insert(reply.luwToken);
    }
  } else if (inUnit) {
    // Mode 0 inside a unit runs the last call of the unit and ends it.
    units_.erase(req.luwToken);
    reply.luwToken = 0;
  }
  return reply;
}

wire::ServerListReply listServers(const Config& config, int32_t capacity) {
  wire::ServerListReply reply;
  const size_t total = config.servers.size();
  if (total == 0) {
    reply.replyRc = kEciErrNoSystems;
    return reply;
  }
  const size_t cap = capacity < 0 ? 0 : static_cast<size_t>(capacity);
  const size_t sent = std::min(cap, total);
  for (size_t i = 0; i < sent; ++i)
    wire::appendServerEntry(reply.entries, config.servers[i].name, config.servers[i].description);
  // When the list does not fit, systemCount tells the caller how many there are.
  reply.systemCount = static_cast<int32_t>(total);
  reply.replyRc = sent < total ? kEciErrMoreSystems : kEciNoError;
  return reply;
}

}  // namespace qvaemu::eci
