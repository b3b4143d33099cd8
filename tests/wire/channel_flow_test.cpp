// QVA_ECI_Execute_Channel over a real gateway token against a scripted peer: the channel block byte for byte,
// every return-flow state and each way a merge fails, what the channel holds afterwards, and the caller's block.

#include <sys/resource.h>

#include <algorithm>
#include <functional>
#include <sstream>

#include "clapi_channel.h"
#include "fake_gateway.h"

namespace {

using namespace wire;

// A container entry as the wire carries it, announcing `announced` bytes.
Bytes entry(const std::string &name, uint8_t state, uint8_t type, uint32_t ccsid, const Bytes &data,
            uint32_t announced) {
  Bytes n = ascii(name);
  n.resize(16, 0);
  return cat({n, Bytes{state, 0x55, 0xAA, type}, be32(ccsid), be32(announced), data});
}
Bytes entry(const std::string &name, uint8_t state, uint8_t type = 1, uint32_t ccsid = 0,
            const std::string &data = "") {
  return entry(name, state, type, ccsid, ascii(data), static_cast<uint32_t>(data.size()));
}

// A program reply carrying a return flow for a channel named `name`.
Bytes channelReply(const std::string &name, uint32_t ccsid, uint32_t count, const Bytes &entries,
                   std::string rc = "00000000") {
  Bytes n = ascii(name);
  n.resize(16, 0);
  return programReply("00000077 00000000 " + rc + " 41424E44 00000000 00", {}, 0xFF,
                      cat({n, be32(ccsid), be32(count), entries}));
}

class ChannelFlowTest : public OverAToken {
 protected:
  void SetUp() override {
    OverAToken::SetUp();
    parms.eci_version = ECI_VERSION_4;
    setField(parms.eci_program_name, "CHPROG  ");
    parms.eci_commarea = nullptr;
    parms.eci_commarea_length = 0;
    makeChannel();
  }
  void TearDown() override {
    OverAToken::TearDown();
    EXPECT_EQ(ECI_deleteAllChannels(), ECI_NO_ERROR);
  }
  // DEL, MOD and KEEP, newest first; the channel CCSID is 1208.
  void makeChannel() {
    ASSERT_EQ(ECI_createChannel("CHANNEL", &channel), ECI_NO_ERROR);
    ASSERT_EQ(ECI_createContainer(channel, "KEEP", ECI_BIT, 0, "keep", 4), ECI_NO_ERROR);
    ASSERT_EQ(ECI_createContainer(channel, "MOD", ECI_CHAR, 1208, "abc", 3), ECI_NO_ERROR);
    ASSERT_EQ(ECI_createContainer(channel, "DEL", ECI_BIT, 0, "zz", 2), ECI_NO_ERROR);
    parms.eci_channel = channel;
  }
  // The channel as "NAME:type:ccsid:data " in list order.
  std::string contents() {
    std::ostringstream out;
    for (Container *c = channel->firstCont; c != nullptr; c = c->nextCont)
      out << std::string(c->name, strnlen(c->name, 16)) << ":" << c->type << ":" << c->ccsid << ":"
          << std::string(reinterpret_cast<char *>(c->dataPtr), c->dataLength) << " ";
    return out.str();
  }
  // A call answered with `reply` once its request has been read whole: the
  // header and fixed fields, 24 bytes for the channel and 28 plus the data
  // for each container.
  int call(const Bytes &reply) {
    size_t size = 32 + 95 + 24;
    for (Container *c = channel->firstCont; c != nullptr; c = c->nextCont) size += 28 + c->dataLength;
    serve(reply, size);
    const int rc = QVA_ECI_Execute_Channel(token, &parms);
    EXPECT_EQ(gateway.finish(), "");
    return rc;
  }
  QvaChannel *channel = nullptr;
};

// The password is sent as it is, masked in the trace and intact after the call.
TEST_F(ChannelFlowTest, RequestCarriesTheChannelNewestFirstEveryEntryAsAdded) {
  ASSERT_EQ(ECI_createContainer(channel, "EMPTY", ECI_CHAR, 0, nullptr, 0), ECI_NO_ERROR);
  TraceCapture trace(5);
  ASSERT_EQ(call(channelReply("CHANNEL", 1208, 0, {})), QVA_OK);
  const std::string text = trace.text();
  EXPECT_EQ(std::string(parms.eci_password, 16), kPassword);
  EXPECT_EQ(text.find(kPassword.substr(0, 8)), std::string::npos);
  // Both dumps of the block show the caller's own address.
  EXPECT_EQ(countLines(text, 3357, "DATA",
                       "API\\.QVA_ECI_Execute_Channel EciParms=" + ptrText(&parms) + " len=94 stopword=0{8}"),
            2);
  EXPECT_EQ(countLines(text, 3244, "ENTRY", "clapi_socketcomms\\.writeChannel\\(.*"), 1);
  EXPECT_EQ(countLines(text, 3359, "EXIT", "API\\.QVA_ECI_Execute_Channel\\(\\) rc=0 \\(QVA_OK\\)"), 1);
  EXPECT_EQ(gateway.requests[1], cat({header(1, "ECI", 95 + 24 + 4 * 28 + 9),
                                      hex("00000001 00000000 01020304 00000000 00 00000008"),
                                      ascii("SYSTEM01USER0001        "),
                                      ascii(kPassword),
                                      ascii("CHPROG  TRN1"),
                                      hex("00000000 00000000 00 00 FF"),
                                      ascii("CHANNEL"),
                                      fill(9, 0),
                                      hex("000004B8 00000004"),  // CCSID 1208, 4 containers
                                      ascii("EMPTY"),
                                      fill(11, 0),
                                      hex("01000002 000004B8 00000000"),  // the channel's CCSID
                                      ascii("DEL"),
                                      fill(13, 0),
                                      hex("01000001 00000000 00000002"),
                                      ascii("zz"),
                                      ascii("MOD"),
                                      fill(13, 0),
                                      hex("01000002 000004B8 00000003"),
                                      ascii("abc"),
                                      ascii("KEEP"),
                                      fill(12, 0),
                                      hex("01000001 00000000 00000004"),
                                      ascii("keep"),
                                      hex("0102 00 FFFFFFFF 00000000")}));
  EXPECT_EQ(std::string(parms.eci_abend_code, 4), "ABND");
  EXPECT_EQ(parms.eci_luw_token, 0x77);
  // Untraced, the same request leaves in one gathered send, byte for byte.
  parms.eci_luw_token = 0x01020304;
  {
    TraceCapture quiet(0);
    ASSERT_EQ(call(channelReply("CHANNEL", 1208, 0, {})), QVA_OK);
  }
  EXPECT_EQ(gateway.requests.back(), gateway.requests[1]);
  // An empty channel is 24 bytes and gets the CCSID of the locale.
  ASSERT_EQ(ECI_createChannel("E", &channel), ECI_NO_ERROR);
  parms.eci_channel = channel;
  unsetenv("LANG");
  ASSERT_EQ(call(channelReply("E", 819, 0, {})), QVA_OK);
  EXPECT_EQ(slice(gateway.requests.back(), 32 + 95 - 11, 24), cat({ascii("E"), fill(15, 0), hex("00000333 00000000")}));
}

// Every reply renames the channel, changes its CCSID and carries rc -7, which comes back when the merge succeeds. A
// same-length modification rewrites the data in place; a walk standing on a deleted container steps back.
TEST_F(ChannelFlowTest, ReturnFlowsMergeUpToTheFirstFailingEntry) {
  const std::string start = "DEL:1:0:zz MOD:2:1208:abc KEEP:1:0:keep ";
  const int merged = ECI_ERR_TRANSACTION_ABEND, failed = QVA_ERR_SYSTEM_ERROR;
  // What, the entry count, the entries, the rc, the channel afterwards in list order.
  const std::tuple<const char *, uint32_t, Bytes, int, std::string> cases[] = {
      {"every state", 4,
       cat({entry("NEW", 1, 2, 37, "new"), entry("DEL", 2), entry("MOD", 3, 1, 500, "ABCDEF"), entry("KEEP", 4)}),
       merged, "NEW:2:37:new MOD:1:500:ABCDEF KEEP:1:0:keep "},
      {"the same length", 2, cat({entry("MOD", 3, 2, 1208, "XYZ"), entry("DEL", 2)}), merged,
       "MOD:2:1208:XYZ KEEP:1:0:keep "},
      {"an empty addition", 1, entry("NONE", 1), merged, "NONE:1:0: " + start},
      {"a second container of a name", 1, entry("KEEP", 1, 1, 0, "two"), merged, "KEEP:1:0:two " + start},
      {"an unknown state is passed over", 2, cat({entry("DEL", 9), entry("ADD", 1, 1, 0, "a")}), merged,
       "ADD:1:0:a " + start},
      {"deleting a container the channel lacks", 3,
       cat({entry("A1", 1, 1, 0, "1"), entry("NOPE", 2), entry("A2", 1, 1, 0, "2")}), failed, "A1:1:0:1 " + start},
      {"modifying a container the channel lacks", 2, cat({entry("NOPE", 3, 1, 0, "x"), entry("DEL", 2)}), failed,
       start},
      {"an entry longer than the reply", 2, cat({entry("DEL", 2), entry("MOD", 3, 2, 1208, ascii("XYZ"), 1000)}),
       failed, "MOD:2:1208:abc KEEP:1:0:keep "},
      {"an addition longer than the reply", 1, entry("BIG", 1, 1, 0, ascii("tiny"), 0x7FFFFFFF), failed, start},
      {"a lie with more of the reply still in the socket", 1, entry("MOD", 3, 2, 1208, fill(3000, 'x'), 5000), failed,
       start},
      {"a count beyond the entries", 3, cat({entry("DEL", 2), slice(entry("KEEP", 4), 0, 10)}), failed,
       "MOD:2:1208:abc KEEP:1:0:keep "},
      {"a huge count", 0x7FFFFFFF, entry("KEEP", 4), failed, start},
  };
  for (const auto &[what, count, entries, rc, after] : cases) {
    SCOPED_TRACE(what);
    const uint8_t *modData = findContainer(channel, "MOD")->dataPtr;
    ContainerInfo info;
    ASSERT_EQ(ECI_getFirstContainer(channel, &info), ECI_NO_ERROR);  // the walk stands on DEL
    EXPECT_EQ(call(channelReply("RENAMED_CHANNEL!", 273, count, entries, "FFFFFFF9")), rc);
    EXPECT_EQ(contents(), after);
    EXPECT_EQ(channel->numContainers, static_cast<int32_t>(std::count(after.begin(), after.end(), ' ')));
    char name[17];
    ASSERT_EQ(ECI_getChannelName(channel, name), ECI_NO_ERROR);
    EXPECT_EQ(std::make_tuple(std::string(name), channel->ccsid), std::make_tuple("RENAMED_CHANNEL!", 273));
    const Container *mod = findContainer(channel, "MOD");
    if (mod->dataLength == 3) {
      EXPECT_EQ(mod->dataPtr, modData);
    }
    ASSERT_EQ(ECI_getNextContainer(channel, &info), ECI_NO_ERROR);
    EXPECT_STREQ(info.name, "MOD") << "the walk's cursor left any deleted container";
    // The connection is still in step for the next call.
    ASSERT_EQ(call(channelReply("RENAMED_CHANNEL!", 1208, 0, {})), QVA_OK);
    ASSERT_EQ(ECI_deleteChannel(&channel), ECI_NO_ERROR);
    makeChannel();
  }
}

// A gigabyte announced, by the header and the entry alike, and 2000 bytes
// sent: the client pays for the bytes that came, not for the gigabyte.
TEST_F(ChannelFlowTest, AnAnnouncedGigabyteThatNeverComesIsNotTouched) {
  const Bytes head = channelReply("CHANNEL", 1208, 1, entry("MOD", 3, 2, 1208, pattern(2000), 1u << 30));
  const Bytes reply =
      cat({header(1, "ECI", uint32_t(head.size() - 32 + (1u << 30) - 2000)), slice(head, 32, head.size() - 32)});
  gateway.run([&](FakeGateway &g) { g.expect(32 + 95 + 24 + 28 * 3 + 9), g.send(reply), g.hangUp(); });
  rusage before{}, after{};
  getrusage(RUSAGE_SELF, &before);
  EXPECT_EQ(QVA_ECI_Execute_Channel(token, &parms), QVA_ERR_LOSTGWCON);
  getrusage(RUSAGE_SELF, &after);
  // Touching the gigabyte costs 1 GiB; a sanitizer's shadow of the untouched block costs up to half that.
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 768 << 10) << "KiB more at the peak";
  EXPECT_EQ(gateway.finish(), "");
  EXPECT_EQ(contents(), "DEL:1:0:zz MOD:2:1208:abc KEEP:1:0:keep ");
  EXPECT_EQ(QVA_closeGatewayConnection(&token), QVA_OK);
}

TEST_F(ChannelFlowTest, BadCallsAreRefusedBeforeAnythingIsSent) {
  int notAChannel[32] = {};
  char area4[4];
  const std::pair<std::function<void(ECI_PARMS &)>, int> cases[] = {
      {[](ECI_PARMS &p) { p.eci_version = 3; }, ECI_ERR_INVALID_VERSION},
      {[](ECI_PARMS &p) { p.eci_channel = nullptr; }, ECI_ERR_INVALID_CHANNEL},
      {[&](ECI_PARMS &p) { p.eci_commarea = area4, p.eci_commarea_length = 4; }, ECI_ERR_COMMAREA_AND_CHANNEL},
      {[&](ECI_PARMS &p) { p.eci_channel = reinterpret_cast<QvaChannel *>(notAChannel); }, ECI_ERR_INVALID_CHANNEL},
  };
  for (const auto &[change, rc] : cases) {
    ECI_PARMS changed = parms;
    change(changed);
    EXPECT_EQ(QVA_ECI_Execute_Channel(token, &changed), rc);
  }
  // Lengths that only the 64-bit sum holds: 2 GiB of data cannot be sent
  // with a 32-bit size. Refused before any byte is read from the blocks.
  Container *keep = findContainer(channel, "KEEP"), *mod = findContainer(channel, "MOD");
  const uint32_t keepLength = keep->dataLength, modLength = mod->dataLength;
  keep->dataLength = mod->dataLength = 0x7FFFFF00u;
  EXPECT_EQ(QVA_ECI_Execute_Channel(token, &parms), QVA_ERR_INVALID_DATA_LENGTH);
  keep->dataLength = keepLength, mod->dataLength = modLength;
  EXPECT_EQ(QVA_ECI_Execute_Channel(nullptr, nullptr), QVA_ERR_NULLGWTOK);
  EXPECT_EQ(QVA_ECI_Execute_Channel(token, nullptr), QVA_ERR_NULLECIPOINTER);
}

}  // namespace
