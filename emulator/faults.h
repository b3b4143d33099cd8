// The fault modes: their names, which messages they hit, and how they bend a
// reply, in its fields (ECI replies) or on its way out (the transport modes).
#ifndef QVAEMU_FAULTS_H
#define QVAEMU_FAULTS_H

#include <cstddef>

#include "eci.h"
#include "link.h"
#include "qvaemu/gateway.h"
#include "reply.h"
#include "wire.h"

namespace qvaemu {

// Which messages a plan bends: from message afterMessages on (0 = the
// handshake), the first `messages` that its mode can bend, or all of them.
class FaultWindow {
 public:
  explicit FaultWindow(const FaultPlan& plan) : plan_(plan) {}
  bool open(size_t message) const;  // messages are numbered from 0, in order
  void bent() { ++bent_; }          // one more message was bent

 private:
  const FaultPlan& plan_;
  size_t bent_ = 0;
};

// The transport modes, which bend any reply on its way out.
bool bendsAnyReply(Fault fault);

// Bends the reply to a program call before it is encoded: the oversize
// COMMAREA, a return flow on a COMMAREA call, and the malformed return flows
// of channel calls. False when the plan's mode has nothing to bend here.
bool bendProgramReply(const FaultPlan& plan, const wire::EciRequest& req, wire::ProgramReply& reply);
// Bends the encoded reply body; flowOffset is where its return flow starts.
void bendProgramBody(Fault fault, const wire::EciRequest& req, wire::Body& body, size_t flowOffset);

// More entries than the caller can take: enough to pass its capacity by at
// least extraBytes bytes, and at least one entry.
wire::ServerListReply oversizeServerList(const eci::Config& config, int32_t capacity, uint32_t extraBytes);

enum class Next {
  CarryOn,  // read the next message
  Silence,  // read on, answer nothing more
  Close,    // close the connection, draining what the peer still sends
  Stop,     // the connection is gone
};
// Sends the reply as the fault says (Fault::None: as it is).
Next transmit(Link& link, Reply& reply, Fault fault, const wire::Header& request);

}  // namespace qvaemu

#endif
