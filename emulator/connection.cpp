// A connection's thread: reads messages whole, answers them, and bends the
// answers as the connection's fault plan says.
#include <algorithm>
#include <iterator>
#include <string>

#include "faults.h"
#include "gateway_impl.h"
#include "link.h"
#include "reply.h"

namespace qvaemu {

namespace {

const uint8_t kHandshakeReplyBody[] = {0x00, 0x02, 'e', 'n', 0x00, 0x02, 'G', 'B'};

// Names in the log are shown as they are, with anything unprintable as '.'.
std::string printable(const std::string& s) {
  std::string out = s;
  for (auto& c : out)
    if (c < 0x20 || c > 0x7E) c = '.';
  return out;
}

class Server {
 public:
  Server(Gateway::Impl& g, Connection& c, int fd)
      : g_(g), c_(c), link_(g, c, fd), session_(g.config, g.tokenSource), window_(c.plan) {}

  void run() {
    size_t message = 0;
    bool silent = false;
    for (;;) {
      wire::Header h;
      std::span<const uint8_t> body;
      if (!link_.readMessage(h, body)) return;
      const bool faulty = window_.open(message++);
      bent_ = faulty && bendsAnyReply(c_.plan.fault);
      Reply reply = answer(h, body, faulty);
      if (bent_) window_.bent();
      if (silent) continue;
      if (!reply.send) return;
      switch (transmit(link_, reply, faulty ? c_.plan.fault : Fault::None, h)) {
        case Next::CarryOn:
          break;
        case Next::Silence:
          silent = true;
          break;
        case Next::Close:
          return link_.closeAndDrain();
        case Next::Stop:
          return;
      }
    }
  }

 private:
  Reply answer(const wire::Header& h, std::span<const uint8_t> body, bool faulty) {
    const std::string note = faulty ? std::string(" fault=") + faultName(c_.plan.fault) : std::string();
    switch (h.flowType) {
      case wire::kFlowHandshake:
        g_.log("conn %zu: HANDSHAKE dataLength=%d%s", c_.index, h.dataLength, note.c_str());
        return replyTo(h, wire::kFlowHandshake,
                       std::vector<uint8_t>(std::begin(kHandshakeReplyBody), std::end(kHandshakeReplyBody)));
      case wire::kFlowClose: {
        g_.log("conn %zu: CLOSE dataLength=%d%s", c_.index, h.dataLength, note.c_str());
        Reply r = replyTo(h, wire::kFlowClose, {});
        r.closeAfter = true;
        if (faulty && c_.plan.fault == Fault::SlowClose) {
          bent_ = true;
          r.delay = c_.plan.closeDelay;
        }
        return r;
      }
      case wire::kFlowEci:
        break;
      default:
        g_.log("conn %zu: unknown flowType=%d dataLength=%d%s", c_.index, h.flowType, h.dataLength, note.c_str());
        return exceptionReply(h, ExceptionReason::UnknownFlow);
    }

    // A malformed body was still read whole by dataLength, so the connection
    // stays in step after the exception.
    wire::EciRequest req;
    std::string why;
    if (wire::parseEciRequest(body, req, &why) == wire::ParseResult::Malformed) {
      g_.log("conn %zu: ECI malformed request (%s) dataLength=%d%s", c_.index, why.c_str(), h.dataLength, note.c_str());
      return exceptionReply(h, ExceptionReason::MalformedRequest);
    }
    if (wire::isProgramCall(req.callType)) return programCall(h, req, faulty, note);
    if (req.callType == wire::kCallServerList) {
      g_.log("conn %zu: ECI callType=9 systemCount=%d timeout=%d%s", c_.index, req.systemCount, req.timeout,
             note.c_str());
      const bool oversize = faulty && c_.plan.fault == Fault::OversizeServerList;
      bent_ = bent_ || oversize;
      auto list = oversize ? oversizeServerList(g_.config, req.systemCount, c_.plan.extraBytes)
                           : eci::listServers(g_.config, req.systemCount);
      return replyTo(h, h.flowType, wire::encodeServerListReply(list));
    }
    g_.log("conn %zu: ECI callType=%d timeout=%d%s", c_.index, req.callType, req.timeout, note.c_str());
    return replyTo(h, h.flowType, wire::encodeCallTypeOnly(req.callType));
  }

  Reply programCall(const wire::Header& h, const wire::EciRequest& req, bool faulty, const std::string& note) {
    std::string channel;
    if (req.channel)
      channel = " channel=" + printable(wire::trimField(req.channel->name)) +
                " containers=" + std::to_string(req.channel->containers.size());
    g_.log("conn %zu: ECI callType=%d system=%s program=%s extend=%d luw=%d commarea=%d send=%d recv=%d timeout=%d%s%s",
           c_.index, req.callType, printable(wire::trimField(req.systemName)).c_str(),
           printable(wire::trimField(req.programName)).c_str(), req.extendMode, req.luwToken, req.commareaLength,
           req.requestDataLength, req.replyDataLength, req.timeout, channel.c_str(), note.c_str());
    auto result = session_.call(req, [this](std::chrono::milliseconds d) { return link_.wait(d); });
    if (!result) {
      Reply r;
      r.send = false;
      return r;
    }
    const bool bent = faulty && bendProgramReply(c_.plan, req, *result);
    bent_ = bent_ || bent;
    size_t flowOffset = 0;
    wire::Body body = wire::encodeProgramReply(*result, &flowOffset);
    if (bent) bendProgramBody(c_.plan.fault, req, body, flowOffset);
    return replyTo(h, h.flowType, std::move(body));
  }

  Gateway::Impl& g_;
  Connection& c_;
  Link link_;
  eci::Session session_;
  FaultWindow window_;
  bool bent_ = false;  // the fault bent the message being answered
};

}  // namespace

void Gateway::Impl::serve(const std::shared_ptr<Connection>& c) {
  int fd;
  {
    std::lock_guard lk(mutex);
    fd = c->fd;
  }
  try {
    Server(*this, *c, fd).run();
  } catch (...) {
    log("conn %zu: internal error; closing", c->index);
  }
  std::lock_guard lk(mutex);
  closeFd(c->fd);
  c->done = true;
  cv.notify_all();
}

}  // namespace qvaemu
