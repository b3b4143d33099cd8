// The ECI request flow, QVA_ECI_Execute and QVA_listSystems against a scripted fake Gateway: request bytes
// against literal vectors and every reply shape. The flow is also driven directly, with recognisable values in
// the fields the API leaves at zero, so that a field out of place shows.

#include <cstddef>
#include <functional>

#include "clapi_socketcomms.h"
#include "fake_gateway.h"

namespace {

using namespace wire;

// A request record as the ECI calls fill it.
struct EciRequest {
  char name[4] = "ECI";
  Bytes area;  // the caller's COMMAREA, then guard bytes
  GatewayRequest req{};

  explicit EciRequest(int32_t commareaLength, int32_t callType = 1) : area(guarded(size_t(commareaLength))) {
    req.magic = kHeaderMagic, req.version = kProtocolVersionWord, req.flowType = 1, req.name = name, req.nameLength = 3;
    req.callType = callType, req.luwToken = 0x01020304, req.spareInt = 0x0A0B0C0D, req.spareByte = 0xEE;
    setField(req.systemName, "SYSTEM01"), setField(req.userId, "USER0001        "), setField(req.password, kPassword);
    setField(req.programName, "PROGRAM1"), setField(req.transId, "TRN1");
    req.commareaLength = commareaLength, req.commarea = commareaLength > 0 ? area.data() : nullptr;
    req.timeout = 0x0102, req.trailerFlag = 0x7E, req.extensionMarker = -1, req.trailerWord = 0x31323334;
  }
};

// Body bytes 0 to 76 of a program call made from EciRequest, up to and including extraDataLength 0.
Bytes programCallFront(const std::string &extendMode) {
  return cat({hex("00000001"), hex(extendMode), hex("01020304 0A0B0C0D EE 00000008"), ascii("SYSTEM01USER0001        "),
              ascii(kPassword), ascii("PROGRAM1TRN1"), hex("00000000")});
}
const Bytes kTrailer = hex("0102 7E FFFFFFFF 31323334");

const std::string kReply = "11111111 22222222 00000000 41424344 ";  // luw, spare, rc 0, "ABCD"

// One 70-byte server list entry: the name padded to 9 bytes, the description to 61.
Bytes entry(const std::string &name, const Bytes &description, char pad) {
  Bytes e = ascii(name), d = description;
  e.resize(9, static_cast<uint8_t>(pad));
  d.resize(61, '.');
  return cat({e, d});
}

class EciTest : public OverAToken {
 protected:
  // A plain call after the one under test: it only succeeds when the
  // connection is still in step.
  void expectNextCallWorks(FakeGateway &peer, int fd) {
    EciRequest next(4);
    peer.run([](FakeGateway &g) { g.expect(32 + 99), g.send(programReply(kReply + "00000004 00", hex("CAFEF00D"))); });
    EXPECT_EQ(clapiFlowECIRequest(fd, &next.req, &reasons), QVA_OK);
    EXPECT_EQ(unguarded(next.area), hex("CAFEF00D"));
    EXPECT_EQ(peer.finish(), "");
    EXPECT_EQ(pendingBytes(fd), 0);
  }
  int32_t reasons = -1;
};

TEST_F(EciTest, RequestsCarryEveryFieldAtItsOffsetByCallType) {
  uint8_t extra[3] = {0xE1, 0xE2, 0xE3}, one[2] = {'A', 'B'}, two[3] = {'X', 'Y', 'Z'};
  // The COMMAREA's length, the call type, a change to the record, the body sent, the reply, the COMMAREA after.
  const std::tuple<int32_t, int32_t, std::function<void(GatewayRequest &)>, Bytes, Bytes, Bytes> cases[] = {
      // Extend modes 2 and 4 send and read no COMMAREA, and clear none.
      {100, 1, [](GatewayRequest &r) { r.extendMode = 2; },
       cat({programCallFront("00000002"), hex("00000064 00 00 00"), kTrailer}),
       programReply(kReply + "00000064 00", {}), fill(100, kStale)},
      {100, 1, [](GatewayRequest &r) { r.extendMode = 4; },
       cat({programCallFront("00000004"), hex("00000064 00 00 00"), kTrailer}),
       programReply(kReply + "00000064 00", {}), fill(100, kStale)},
      {4, 1, [&](GatewayRequest &r) { r.extraDataLength = 3, r.extraData = extra; },
       cat({slice(programCallFront("00000000"), 0, 73), hex("00000003 E1E2E3 00000004 00 00 5A5A5A5A 00"), kTrailer}),
       programReply(kReply + "00000004 00", hex("01020304")), hex("01020304")},
      {0,
       9,
       [&](GatewayRequest &r) {
         r.extensionMarker = 0, r.extension1Length = 2, r.extension1 = one, r.extension2Length = 3, r.extension2 = two;
       },
       hex("00000009 00000000 0102 7E 00000000 00000002 4142 00000003 58595A 31323334"),
       message(1, "ECI", hex("00000009 00000000 00000000 00000000")),
       {}},
      {0, 7, nullptr, cat({hex("00000007"), kTrailer}), message(1, "ECI", hex("00000007")), {}},  // unknown: a trailer
  };
  // Untraced (level 0) the request leaves in one gathered send, traced (level 3) piece by piece: the same bytes.
  for (const auto &[commarea, callType, change, body, reply, after] : cases)
    for (int level : {0, 3}) {
      const auto size = static_cast<uint32_t>(body.size());
      SCOPED_TRACE(testing::Message() << size << " bytes, level " << level);
      EciRequest call(commarea, callType);
      if (change) change(call.req);
      serve(reply, 32 + size);
      TraceCapture trace(level);
      EXPECT_EQ(clapiFlowECIRequest(token->socket, &call.req, &reasons), QVA_OK);
      const std::string text = trace.text();
      EXPECT_EQ(reasons, 0);
      ASSERT_EQ(gateway.finish(), "");
      EXPECT_EQ(gateway.requests.back(), cat({header(1, "ECI", size), body}));
      EXPECT_EQ(unguarded(call.area), after);
      EXPECT_TRUE(guardIntact(call.area));
      EXPECT_EQ(pendingBytes(token->socket), 0);
      if (level == 0) continue;
      EXPECT_EQ(countLines(text, 3214, "EXIT",
                           R"(clapi_socketcomms\.clapiFlowECIRequest\(socketDesc=)" + std::to_string(token->socket) +
                               R"(, \*request=0x[0-9a-f]+, \*reasons=0x[0-9a-f]+\) rc=0)"),
                1)
          << text;
      EXPECT_EQ(countLines(text, 3214, "EXIT",
                           R"(clapi_socketcomms\.calculateECIRequestSize\(\*request=0x[0-9a-f]+\) )"
                           "requestSize=" +
                               std::to_string(size)),
                1);
    }
}

// What fits is kept; what does not fit, or should not be there, is read and dropped so that the next call gets its
// own reply; an unknown call type changes nothing else. A malformed or cut reply fails the call and writes nothing.
TEST_F(EciTest, RepliesFillWhatTheCallerHoldsOrFailTheCall) {
  const std::string dropped = " COMMAREA bytes, more than the 100 the caller holds; the excess was dropped";
  // What, the COMMAREA's length, the reply (none: the Gateway has gone before the request), the rc; when the
  // connection stays in step, the COMMAREA afterwards and the exception line.
  const std::tuple<const char *, int32_t, Bytes, int, Bytes, std::string> cases[] = {
      {"an unknown call type", 100, message(1, "ECI", cat({hex("00000005"), pattern(2000)})), QVA_OK, fill(100, kStale),
       ""},
      {"a COMMAREA longer than the caller's", 100, programReply(kReply + "00000BB8 00", pattern(3000, 4)),
       QVA_ERR_INVALID_DATA_LENGTH, pattern(100, 4), "3226 Gateway returned 3000" + dropped},
      {"a reply length beyond the COMMAREA", 100, programReply(kReply + "00000064 FF 00 00000096", pattern(150, 8)),
       QVA_ERR_INVALID_DATA_LENGTH, pattern(100, 8), "3226 Gateway returned 150" + dropped},
      {"a channel after the COMMAREA", 4, programReply(kReply + "00000004 00", hex("01020304"), 0xFF, pattern(1500, 6)),
       QVA_ERR_SYSTEM_ERROR, hex("01020304"), "3228 Gateway returned a channel for a COMMAREA request; .*"},
      {"a negative reply length",
       100,
       programReply(kReply + "00000064 FF 00 FFFFFFFB", {}),
       QVA_ERR_SYSTEM_ERROR,
       {},
       ""},
      {"a longer name", 100, message(1, "ECIX", hex("00000007")), QVA_ERR_SYSTEM_ERROR, {}, ""},
      // The first fill takes 1024 bytes; the close comes while the rest is dropped.
      {"closed in the bytes dropped",
       100,
       slice(message(1, "ECI", cat({hex("00000005"), pattern(2000)})), 0, 32 + 1200),
       QVA_ERR_LOSTGWCON,
       {},
       ""},
      {"gone", 100, {}, QVA_ERR_LOSTGWCON, {}, ""},
  };
  for (const auto &[what, commarea, reply, rc, kept, line] : cases) {
    SCOPED_TRACE(what);
    const bool inStep = rc == QVA_OK || !line.empty(), unknown = rc == QVA_OK;
    SocketPair p;
    FakeGateway peer(p.peer, [&, reply = reply, size = 32 + 95 + size_t(commarea)](FakeGateway &g) {
      if (!reply.empty()) g.expect(size), g.send(reply);
      if (!inStep) g.hangUp();
    });
    if (reply.empty()) {
      ASSERT_EQ(peer.finish(), "");
    }
    EciRequest call(commarea);
    call.req.replyRc = 77, call.req.systemCount = 3;
    TraceCapture trace(1);
    EXPECT_EQ(clapiFlowECIRequest(p.client, &call.req, &reasons), rc);
    const std::string text = trace.text();
    EXPECT_TRUE(reply.empty() ? reasons == EPIPE || reasons == ECONNRESET : reasons == 0) << "reasons=" << reasons;
    EXPECT_EQ(unguarded(call.area), inStep ? kept : fill(100, kStale));
    EXPECT_TRUE(guardIntact(call.area));
    EXPECT_EQ(std::string(call.name, 4), std::string("ECI", 4)) << "nothing written past the name storage";
    if (!inStep) {
      EXPECT_EQ(peer.finish(), "");
      continue;
    }
    EXPECT_EQ(
        std::make_tuple(call.req.callType, call.req.luwToken, call.req.spareInt, call.req.replyRc,
                        call.req.systemCount),
        unknown ? std::make_tuple(5, 0x01020304, 0x0A0B0C0D, 77, 3) : std::make_tuple(1, 0x11111111, 0x22222222, 0, 3));
    EXPECT_EQ(traceLines(text).size(), line.empty() ? 0u : 1u) << text;
    if (!line.empty()) {
      EXPECT_EQ(countLines(text, std::stoi(line), "*EXC*", "clapi_socketcomms\\.clapiFlowECIRequest " + line.substr(5)),
                1);
    }
    expectNextCallWorks(peer, p.client);
  }
}

// The parameter block against the request bytes, and the reply copied back: the reply rc returned, the luw token and
// abend code copied; an exception leaves every output as it was. The password never reaches the trace, even in hex.
TEST_F(EciTest, ExecuteMapsTheParameterBlockToTheRequestAndTheReplyBack) {
  const Bytes ok = programReply("01020304 00000000 00000000 20202020 00000064 00", pattern(100));
  // The TPN, the send and receive lengths; the body length, lengths part and COMMAREA bytes sent; the reply, and
  // the rc, luw token, abend code and COMMAREA after. A TPN of four blanks makes the call type 12, the TPN the transid.
  const std::tuple<const char *, short, short, uint32_t, const char *, size_t, Bytes, int, int, const char *, Bytes>
      cases[] = {
          {"", 0, 0, 195, "00 00", 100, ok, QVA_OK, 0x01020304, "    ", pattern(100)},
          {"    ", 0, 0, 195, "00 00", 100, ok, QVA_OK, 0x01020304, "    ", pattern(100)},
          // Above the COMMAREA length they are cut to it; zero or negative sends none.
          {"", 200, 300, 203, "FF 00000064 FF 00000064", 100, ok, QVA_OK, 0x01020304, "    ", pattern(100)},
          {"", 30, -5, 129, "FF 0000001E 00", 30, ok, QVA_OK, 0x01020304, "    ", pattern(100)},
          {"", 0, 0, 195, "00 00", 100,
           programReply("0BADF00D 00000000 FFFFFFF9 41535241 00000064 FF 00 0000000A", pattern(10, 9)),
           ECI_ERR_TRANSACTION_ABEND, 0x0BADF00D, "ASRA", cat({pattern(10, 9), fill(90, 0)})},
          // A reply bounded to the caller's COMMAREA, or with a channel it should not carry, still hands back the
          // unit's token and the abend code: the unit can be committed or backed out.
          {"", 0, 0, 195, "00 00", 100,
           programReply("0BADF00D 00000000 00000000 41424344 000000C8 00", pattern(200, 9)),
           QVA_ERR_INVALID_DATA_LENGTH, 0x0BADF00D, "ABCD", pattern(100, 9)},
          {"", 0, 0, 195, "00 00", 100,
           programReply("0BADF00D 00000000 00000000 41424344 00000064 00", pattern(100, 9), 0xFF, pattern(300)),
           QVA_ERR_SYSTEM_ERROR, 0x0BADF00D, "ABCD", pattern(100, 9)},
          // A body longer than the buffer: what one fill does not take is dropped too.
          {"", 0, 0, 195, "00 00", 100, message(6, "ECI", pattern(2000)), QVA_ERR_GATEWAY_EXCEPTION, 0x01020304, "zzzz",
           pattern(100, 40)},
      };
  // Traced at level 5 for the dumps, and untraced, where the request leaves in one gathered send: the same bytes.
  for (const auto &[tpn, send, receive, body, lengths, sent, reply, rc, luw, abend, kept] : cases)
    for (int level : {5, 0}) {
      SCOPED_TRACE(testing::Message() << lengths << ", level " << level);
      const bool blankTpn = *tpn != 0;
      const Bytes data = pattern(100, static_cast<uint8_t>(send + 40));
      std::copy(data.begin(), data.end(), area.begin());
      std::memcpy(parms.eci_tpn, blankTpn ? tpn : "\0\0\0\0", 4);
      std::memcpy(parms.eci_abend_code, "zzzz", 4);
      parms.eci_send_length = send, parms.eci_receive_length = receive, parms.eci_luw_token = 0x01020304;
      serve(reply, 32 + body);
      TraceCapture trace(level);
      EXPECT_EQ(QVA_ECI_Execute(token, &parms), rc);
      const std::string text = trace.text();
      ASSERT_EQ(gateway.finish(), "");
      const Bytes request = gateway.requests.back();
      EXPECT_EQ(request,
                cat({header(1, "ECI", body), hex(blankTpn ? "0000000C" : "00000001"),
                     hex("00000000 01020304 00000000 00 00000008"), ascii("SYSTEM01USER0001        "), ascii(kPassword),
                     ascii("PROGRAM1"), ascii(blankTpn ? tpn : "TRN1"), hex("00000000 00000064"), hex(lengths),
                     slice(data, 0, sent), hex("00 0102 00 FFFFFFFF 00000000")}));
      EXPECT_EQ(std::make_tuple(parms.eci_luw_token, std::string(parms.eci_abend_code, 4)),
                std::make_tuple(luw, abend));
      EXPECT_EQ(unguarded(area), kept);
      EXPECT_TRUE(guardIntact(area));
      if (level == 0) {
        expectNextCallWorks(gateway, token->socket);
        continue;
      }
      EXPECT_EQ(countLines(text, 3225, "*EXC*",
                           "clapi_socketcomms\\.clapiFlowECIRequest An exception occurred in the Gateway "
                           "daemon"),
                rc == QVA_ERR_GATEWAY_EXCEPTION);
      EXPECT_EQ(std::string(parms.eci_password, 16), kPassword);
      std::string packed = text;
      packed.erase(std::remove(packed.begin(), packed.end(), ' '), packed.end());
      EXPECT_EQ(text.find("S3cr3t"), std::string::npos);
      EXPECT_EQ(packed.find("53336372337450617373"), std::string::npos) << "the password in hex";
      // The block is dumped whole, as this platform lays it out, on the way in and out.
      const std::string size = std::to_string(sizeof(ECI_PARMS));
      EXPECT_EQ(countLines(text, 3323, "DEBUG",
                           R"(API\.QVA_ECI_Execute\(eciParmsSize=)" + size +
                               R"(\) (Input|Output) Eci )"
                               "Stucture "),
                2);
      int parmDumps = 0, requestDumps = 0;
      for (const auto &d : dumps(text)) {
        EXPECT_FALSE(contains(d.bytes, ascii(kPassword))) << d.point << " " << d.message;
        if (d.point == 3325) {
          ++parmDumps;
          EXPECT_TRUE(std::regex_match(d.message, std::regex(R"(API\.QVA_ECI_Execute EciParms=0x[0-9a-f]+ len=)" +
                                                             size + " stopword=00000000")));
          EXPECT_EQ(slice(d.bytes, offsetof(ECI_PARMS, eci_password), 16), fill(16, '*'));
          EXPECT_EQ(slice(d.bytes, offsetof(ECI_PARMS, eci_userid), 16), ascii("USER0001        "))
              << "only the password";
        } else if (d.point == 1526) {
          ++requestDumps;
          EXPECT_TRUE(
              std::regex_match(d.message, std::regex(R"(clapi_socketbuffer\.flushBuffer data=0x[0-9a-f]+ len=)" +
                                                     std::to_string(32 + body) + " stopword=00000000")));
          EXPECT_EQ(d.bytes, cat({slice(request, 0, 32 + 45), fill(16, '*'), slice(request, 32 + 61, body - 61)}));
        }
      }
      EXPECT_EQ(std::make_pair(parmDumps, requestDumps), std::make_pair(2, 1)) << "the block in and out, the request";
      expectNextCallWorks(gateway, token->socket);
    }
}

// A block that fails its checks is dumped on the way out as well as in,
// though nothing was sent; without a block there is nothing to dump.
TEST_F(EciTest, TheBlockIsDumpedOnTheWayOutWhateverTheOutcome) {
  parms.eci_version = 0;
  TraceCapture trace(4);
  EXPECT_EQ(QVA_ECI_Execute(token, &parms), ECI_ERR_INVALID_VERSION);
  EXPECT_EQ(QVA_ECI_Execute(token, nullptr), QVA_ERR_NULLECIPOINTER);
  const std::string text = trace.text(), size = std::to_string(sizeof(ECI_PARMS));
  for (const char *way : {"Input", "Output"})
    EXPECT_EQ(countLines(text, 3323, "DEBUG",
                         R"(API\.QVA_ECI_Execute\(eciParmsSize=)" + size + R"(\) )" + way + " Eci Stucture "),
              1);
  EXPECT_EQ(countLines(text, 3325, "DATA", ".*"), 2);
}

// Names lose trailing blanks and NULs but keep inner blanks and the first byte; a longer list is cut to the capacity.
TEST_F(EciTest, ListSystemsTrimsTheNamesAndCutsTheListToTheCapacity) {
  const Bytes d = ascii("A description with trailing blanks      ");
  const auto list = [](uint32_t count, uint32_t rc, const Bytes &entries) {
    return message(1, "ECI", cat({hex("00000009"), be32(count), be32(rc), be32(uint32_t(entries.size())), entries}));
  };
  // The caller's capacity, the reply, the rc, the number of systems the Gateway reports, the caller's list after.
  const std::tuple<unsigned short, Bytes, int, unsigned short, Bytes> cases[] = {
      {4,
       list(4, 0,
            cat({entry("A C", d, ' '), entry("", d, ' '), entry(std::string("XY\0 \0", 5), d, ' '),
                 entry("SYSTEM01", d, ' ')})),
       QVA_OK, 4, cat({entry("A C", d, 0), entry(" ", d, 0), entry("XY", d, 0), entry("SYSTEM01", d, 0)})},
      {1, list(0, uint32_t(QVA_ERR_NO_SYSTEMS), {}), QVA_ERR_NO_SYSTEMS, 0, fill(70, kStale)},
      {2,
       list(4, 0, cat({entry("ONE", {}, ' '), entry("TWO", {}, ' '), entry("THREE", {}, ' '), entry("FOUR", {}, ' ')})),
       QVA_ERR_MORE_SYSTEMS, 4, cat({entry("ONE", {}, 0), entry("TWO", {}, 0)})},
      {1, message(6, "ECI", pattern(20)), QVA_ERR_GATEWAY_EXCEPTION, 1, fill(70, kStale)},
  };
  for (const auto &[capacity, reply, rc, reported, kept] : cases) {
    SCOPED_TRACE(rc);
    Bytes buffer = guarded(capacity * 70u);
    unsigned short systems = capacity;
    serve(reply, 32 + 19);
    EXPECT_EQ(QVA_listSystems(token, &systems, reinterpret_cast<QVA_SYSTEM_ENTRY *>(buffer.data())), rc);
    ASSERT_EQ(gateway.finish(), "");
    EXPECT_EQ(gateway.requests.back(),
              cat({header(1, "ECI", 19), hex("00000009"), be32(capacity), hex("0000 00 FFFFFFFF 00000000")}));
    EXPECT_EQ(systems, reported);
    EXPECT_EQ(unguarded(buffer), kept);
    EXPECT_TRUE(guardIntact(buffer)) << "nothing past capacity*70 bytes";
    expectNextCallWorks(gateway, token->socket);
  }
}

// A handshake answered badly fails the open, and the socket is shut without a close request, whose reply could
// never come.
TEST_F(EciTest, ABadHandshakeReplyFailsTheOpenWithoutACloseRequest) {
  Listener other;
  FakeGateway peer(-1, [&](FakeGateway &g) { g.accept(other.fd), g.expect(55), g.send(message(5, "BASEX", {})); });
  QvaGatewayToken *failed = nullptr;
  TraceCapture trace(1);
  EXPECT_EQ(QVA_openRemoteGatewayConnection("127.0.0.1", other.port, &failed, 5), QVA_ERR_CONNECTFAILED);
  EXPECT_EQ(
      countLines(trace.text(), 2014, "*EXC*", R"(clapi_gwycon\.clapiConnectToGatewayHandshake flows failed rc=-9 .*)"),
      1);
  ASSERT_EQ(peer.finish(), "");
  EXPECT_EQ(std::make_tuple(failed, peer.requests), std::make_tuple(nullptr, std::vector<Bytes>{handshakeRequest()}));
  EXPECT_TRUE(peer.unread().empty()) << "no close request";
}

}  // namespace

// How a reply arrives changes nothing: in one piece, a byte at a time or split at every field boundary, it fills the
// same fields whether the buffer reads it piece by piece (level 4) or takes along whatever has arrived (level 0).
// Cut short at any byte, it ends the flow at the same step either way: the same result, reasons, fields, COMMAREA
// bytes and exception line.
TEST_F(EciTest, HowAReplyArrivesOrWhereItIsCutDoesNotDependOnTheTraceLevel) {
  const Bytes reply = programReply(kReply + "00000BB8 00", pattern(3000, 4));
  const std::vector<size_t> fields = {4, 8, 12, 16, 20, 24, 27, 28, 32, 36, 40, 44, 48, 52, 56, 57, 3057};
  auto pieces = [&](const std::vector<size_t> &ends) {
    std::vector<Bytes> out;
    size_t from = 0;
    for (size_t end : ends) out.push_back(slice(reply, from, end - from)), from = end;
    out.push_back(slice(reply, from, reply.size() - from));
    return out;
  };
  std::vector<size_t> everyByte(reply.size() - 1);
  for (size_t i = 0; i < everyByte.size(); ++i) everyByte[i] = i + 1;
  for (const auto &[what, split] : {std::pair{"one piece", pieces({})}, std::pair{"fields", pieces(fields)},
                                    std::pair{"bytes", pieces(everyByte)}}) {
    for (int level : {0, 4}) {
      SCOPED_TRACE(testing::Message() << what << ", level " << level);
      SocketPair p;
      FakeGateway peer(
          p.peer, [&, split = split](FakeGateway &g) { g.expect(32 + 95 + 3000), g.sendInPieces(split, p.client); });
      EciRequest call(3000);
      TraceCapture trace(level);
      EXPECT_EQ(clapiFlowECIRequest(p.client, &call.req, &reasons), QVA_OK);
      EXPECT_EQ(std::make_tuple(call.req.luwToken, call.req.spareInt, unguarded(call.area)),
                std::make_tuple(0x11111111, 0x22222222, pattern(3000, 4)));
      EXPECT_EQ(peer.finish(), "");
      EXPECT_EQ(pendingBytes(p.client), 0);
    }
  }
  using Outcome = std::tuple<int, int32_t, int32_t, int32_t, Bytes, std::vector<std::string>>;
  auto cutAt = [&](size_t cut, int level) {
    SocketPair p;
    sendAll(p.peer, slice(reply, 0, cut));
    ::shutdown(p.peer, SHUT_WR);
    EciRequest call(3000);
    TraceCapture trace(level);
    const int rc = clapiFlowECIRequest(p.client, &call.req, &reasons);
    std::vector<std::string> exceptions;
    for (const TraceLine &line : traceLines(trace.text()))
      if (line.word == "*EXC*") exceptions.push_back(std::to_string(line.point) + " " + line.message);
    return Outcome{rc, reasons, call.req.luwToken, call.req.replyRc, call.area, exceptions};
  };
  for (size_t cut = 0; cut < reply.size(); cut += cut < 80 || cut > 2990 || cut % 1024 > 1010 ? 1 : 37) {
    const Outcome quiet = cutAt(cut, 1), traced = cutAt(cut, 4);
    EXPECT_EQ(std::get<0>(quiet), cut < 32 ? QVA_ERR_LOSTGWCON : std::get<0>(quiet)) << cut;
    ASSERT_EQ(quiet, traced) << "cut at " << cut;
  }
}
