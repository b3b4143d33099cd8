// The emulated server programs, the server and security checks, and the
// extended units of work, driven through the wire.
#include <gtest/gtest.h>

#include <cstdio>

#include "qvaemu/gateway.h"
#include "raw_client.h"

using namespace rawclient;

namespace {

class ProgramsTest : public ::testing::Test {
 protected:
  void SetUp() override { start({}); }
  void start(qvaemu::Options o) {
    gw_ = std::make_unique<qvaemu::Gateway>(std::move(o));
    std::string error;
    ASSERT_TRUE(gw_->start(&error)) << error;
    ASSERT_TRUE(open(c_, gw_->port()));
  }
  ProgramReply run(const Call& call) {
    ProgramReply r;
    EXPECT_TRUE(rawclient::call(c_, call, r));
    return r;
  }
  static Call program(const std::string& name, const std::string& commarea) {
    Call c;
    c.program = name;
    c.commarea = ascii(commarea);
    return c;
  }
  std::unique_ptr<qvaemu::Gateway> gw_;
  Client c_;
};

TEST_F(ProgramsTest, EchoReturnsTheCommareaUnchanged) {
  Call c;
  c.commarea = pattern(256);
  const auto r = run(c);
  EXPECT_EQ(r.replyRc, 0);
  EXPECT_EQ(r.callType, 1);
  EXPECT_EQ(r.commareaLength, 256);
  EXPECT_EQ(r.replyDataLength, 256);
  EXPECT_EQ(r.data, c.commarea);
  EXPECT_EQ(r.abendCode, std::string(4, '\0'));
  EXPECT_EQ(r.channelPresent, 0);
}

// What each program answers, by its COMMAREA.
TEST_F(ProgramsTest, EachProgramAnswersAsDocumented) {
  struct Case {
    const char* program;
    std::string commarea;
    int32_t rc;
    std::string abend;
    std::string data;
  };
  const std::string none(4, '\0');
  for (const Case& k : {
           Case{"UPPER", "abc xyz-09 \xE9z", 0, none, "ABC XYZ-09 \xE9Z"},  // ASCII letters only
           Case{"SHORT", "0123456789", 0, none, "01234"},                   // half of what it got
           Case{"NOSUCH", "x", -7, "AEI0", ""},
           Case{"ABEND", "XY12 and the rest", -7, "XY12", ""},
           Case{"ABEND", "WXYZ", -7, "WXYZ", ""},  // exactly four
           Case{"ABEND", "XY 2", -7, "ABND", ""},  // a blank among the first four
           Case{"ABEND", "XYZ", -7, "ABND", ""},   // fewer than four bytes
       }) {
    SCOPED_TRACE(std::string(k.program) + " " + k.commarea);
    const auto r = run(program(k.program, k.commarea));
    EXPECT_EQ(r.replyRc, k.rc);
    EXPECT_EQ(r.abendCode, k.abend);
    EXPECT_EQ(r.commareaLength, static_cast<int32_t>(k.commarea.size()));
    EXPECT_EQ(r.data, ascii(k.data));
  }
}

TEST_F(ProgramsTest, CallType12IsRunAndAnsweredAs12) {
  Call c = program("ECHO", "tpn call");
  c.callType = 12;
  c.transId = "TPN1";
  const auto r = run(c);
  EXPECT_EQ(r.callType, 12);
  EXPECT_EQ(r.data, ascii("tpn call"));
}

TEST_F(ProgramsTest, ServerNameIsCheckedAndEmptyMeansTheFirst) {
  Call c = program("ECHO", "hi");
  c.system = "NOWHERE";
  EXPECT_EQ(run(c).replyRc, -22);
  c.system = "";
  EXPECT_EQ(run(c).replyRc, 0);
  c.system = "QVATEST";
  EXPECT_EQ(run(c).replyRc, 0);
}

TEST_F(ProgramsTest, SendAndReceiveLengthsAreHonoured) {
  Call c = program("ECHO", "0123456789");
  c.commareaLength = 100;
  c.send = 10;
  auto r = run(c);
  EXPECT_EQ(r.commareaLength, 100);
  EXPECT_EQ(r.replyDataLength, 100);
  EXPECT_EQ(r.data, cat({ascii("0123456789"), Bytes(90, 0)}));

  c.recv = 4;
  r = run(c);
  EXPECT_EQ(r.commareaLength, 100);
  EXPECT_EQ(r.replyDataLength, 4);
  EXPECT_EQ(r.data, ascii("0123"));
}

TEST_F(ProgramsTest, SleepWaitsThenEchoes) {
  const auto t0 = std::chrono::steady_clock::now();
  const auto r = run(program("SLEEP", "60 ms"));
  EXPECT_GE(std::chrono::steady_clock::now() - t0, 60ms);
  EXPECT_EQ(r.replyRc, 0);
  EXPECT_EQ(r.data, ascii("60 ms"));
}

TEST_F(ProgramsTest, SleepLongerThanTheTimeoutIsAResponseTimeout) {
  Call c = program("SLEEP", "5000");
  c.timeout = 1;
  const auto t0 = std::chrono::steady_clock::now();
  const auto r = run(c);
  const auto took = std::chrono::steady_clock::now() - t0;
  EXPECT_EQ(r.replyRc, -6);
  EXPECT_GE(took, 1s);
  EXPECT_LT(took, 4s);
}

TEST_F(ProgramsTest, UnitOfWorkTokensFollowTheExtendModes) {
  Call c = program("ECHO", "luw");
  c.extendMode = 1;
  const auto first = run(c);
  ASSERT_EQ(first.replyRc, 0);
  const int32_t t1 = first.luwToken;
  ASSERT_NE(t1, 0);

  c.luwToken = t1;
  auto r = run(c);  // continue the unit
  EXPECT_EQ(r.replyRc, 0);
  EXPECT_EQ(r.luwToken, t1);

  c.luwToken = 0;
  const int32_t t2 = run(c).luwToken;  // a second unit beside the first
  EXPECT_NE(t2, 0);
  EXPECT_NE(t2, t1);

  Call commit = c;
  commit.extendMode = 2;
  commit.luwToken = t1;
  r = run(commit);
  EXPECT_EQ(r.replyRc, 0);
  EXPECT_EQ(r.luwToken, 0);
  r = run(commit);  // the unit has ended
  EXPECT_EQ(r.replyRc, -8);

  Call last = c;  // mode 0 with a token runs the last call and ends the unit
  last.extendMode = 0;
  last.luwToken = t2;
  r = run(last);
  EXPECT_EQ(r.replyRc, 0);
  EXPECT_EQ(r.luwToken, 0);
  EXPECT_EQ(r.data, ascii("luw"));
  EXPECT_EQ(run(last).replyRc, -8);

  c.luwToken = 0;
  const int32_t t3 = run(c).luwToken;
  Call backout = c;
  backout.extendMode = 4;
  backout.luwToken = t3;
  r = run(backout);
  EXPECT_EQ(r.replyRc, 0);
  EXPECT_EQ(r.luwToken, 0);

  backout.luwToken = 0;  // nothing to back out
  EXPECT_EQ(run(backout).replyRc, -8);
  c.luwToken = 0x1234;  // never issued
  EXPECT_EQ(run(c).replyRc, -8);
}

TEST_F(ProgramsTest, UnitTokensBelongToTheirConnection) {
  Call c = program("ECHO", "x");
  c.extendMode = 1;
  const int32_t token = run(c).luwToken;
  ASSERT_NE(token, 0);
  Client other;
  ASSERT_TRUE(open(other, gw_->port()));
  c.luwToken = token;
  ProgramReply r;
  ASSERT_TRUE(call(other, c, r));
  EXPECT_EQ(r.replyRc, -8);
}

TEST(ProgramsSecurity, UserAndPasswordMustMatchAndThePasswordIsNeverLogged) {
  FILE* logFile = std::tmpfile();
  ASSERT_NE(logFile, nullptr);
  qvaemu::Options o;
  o.userId = "ALICE";
  o.password = "S3CRET";
  o.logMessages = true;
  o.logStream = logFile;
  qvaemu::Gateway gw(o);
  ASSERT_TRUE(gw.start());
  Client c;
  ASSERT_TRUE(open(c, gw.port()));

  Call call;
  call.commarea = ascii("secure");
  ProgramReply r;
  ASSERT_TRUE(rawclient::call(c, call, r));
  EXPECT_EQ(r.replyRc, -27);
  call.user = "ALICE";
  call.password = "WRONG";
  ASSERT_TRUE(rawclient::call(c, call, r));
  EXPECT_EQ(r.replyRc, -27);
  call.password = "S3CRET";  // sent blank padded, compared trimmed
  ASSERT_TRUE(rawclient::call(c, call, r));
  EXPECT_EQ(r.replyRc, 0);
  EXPECT_EQ(r.data, ascii("secure"));
  gw.stop();

  std::string log;
  std::rewind(logFile);
  char buf[512];
  while (std::fgets(buf, sizeof buf, logFile)) log += buf;
  std::fclose(logFile);
  EXPECT_NE(log.find("conn 0: HANDSHAKE"), std::string::npos) << log;
  EXPECT_NE(log.find("conn 0: ECI callType=1 system=QVADEMO program=ECHO extend=0 luw=0 commarea=6 send=0 recv=0 timeout=0"),
            std::string::npos)
      << log;
  EXPECT_EQ(log.find("S3CRET"), std::string::npos) << log;
}

}  // namespace
