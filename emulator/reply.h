// One message's answer, before the transport faults bend it.
#ifndef QVAEMU_REPLY_H
#define QVAEMU_REPLY_H

#include <utility>

#include "qvaemu/gateway.h"
#include "wire.h"

namespace qvaemu {

struct Reply {
  wire::Header header;
  wire::Body body;
  bool send = true;                   // false: the wait of a SLEEP was cut short
  bool closeAfter = false;            // the close flow ends the connection
  std::chrono::milliseconds delay{};  // held back this long before it is sent
};

inline Reply replyTo(const wire::Header& req, int32_t flowType, wire::Body body) {
  Reply r;
  r.header.flowType = flowType;
  // The client reads the reply header in a block the size of its own
  // request's header, so the reply carries a name of the same length.
  r.header.name = req.name;
  r.header.dataLength = static_cast<int32_t>(body.size());
  r.body = std::move(body);
  return r;
}

inline Reply exceptionReply(const wire::Header& req, ExceptionReason reason) {
  return replyTo(req, wire::kFlowException, wire::encodeExceptionBody(req.flowType, static_cast<int32_t>(reason)));
}

}  // namespace qvaemu

#endif
