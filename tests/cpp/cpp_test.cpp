// The C++ layer against the Gateway emulator in this process: ownership of
// connections and channels, calls and their results, the error category.
#include <chrono>
#include <cstddef>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

#include "qvaclient/qvaclient.hpp"
#include "qvaemu/gateway.h"
#include "qvatest/trace.h"

using namespace qvatest;

namespace {

constexpr const char* kLoopback = "127.0.0.1";

std::span<std::byte> bytesOf(std::string& s) { return std::as_writable_bytes(std::span(s)); }

// "NAME type ccsid data" with the data in hex for BIT containers.
std::string describe(const qva::ContainerView& c) {
  std::string out = std::string(c.name) + (c.type == qva::ContainerType::bit ? " bit " : " char ");
  out += std::to_string(c.ccsid) + " ";
  if (c.type == qva::ContainerType::character) return out + std::string(c.text());
  for (std::byte b : c.data) {
    out += "0123456789ABCDEF"[std::to_integer<int>(b) >> 4];
    out += "0123456789ABCDEF"[std::to_integer<int>(b) & 15];
  }
  return out;
}

class CppTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(gw_.start(&error)) << error;
    connection_ = open(gw_.port());
  }
  void TearDown() override {
    connection_ = {};
    TraceCapture state(0);
    EXPECT_EQ(QVA_dumpState(), QVA_OK);
    const bool empty = state.text().find("The Gateway Token List is EMPTY\n") != std::string::npos;
    EXPECT_TRUE(empty) << "a connection was left open";
    if (!empty) QVA_closeAllGatewayConnections();  // not to fail the tests after this one too
  }
  static qva::Connection open(int port) {
    std::error_code ec;
    qva::Connection c = qva::Connection::open(kLoopback, port, ec, 5);
    EXPECT_FALSE(ec) << ec.message();
    return c;
  }

  qvaemu::Gateway gw_;
  qva::Connection connection_;
};

TEST_F(CppTest, AConnectionIsClosedOnceWhateverMovesItWent) {
  TraceCapture trace(2);
  {
    qva::Connection first = open(gw_.port());
    QvaGatewayToken* token = first.native_handle();
    qva::Connection second(std::move(first));
    qva::Connection third;
    third = std::move(second);
    EXPECT_FALSE(first.is_open());
    EXPECT_FALSE(second);
    EXPECT_EQ(third.native_handle(), token);
    EXPECT_EQ(third.close(), std::error_code());
    EXPECT_EQ(third.close(), qva::errc::nullgwtok) << "the second close finds nothing to close";
    third = open(gw_.port());
    third = open(gw_.port());  // the connection it held is closed here
  }
  const std::string closed = "API\\.QVA_closeGatewayConnection Closed Gateway connection for token .*";
  EXPECT_EQ(countLines(trace.text(), 1133, "EVENT", closed), 3);
  EXPECT_EQ(gw_.connectionCount(), 4u);

  const struct {
    std::string host;
    int port, timeout;
    std::error_code ec;
  } failures[] = {
      {kLoopback, 0, 5, qva::errc::badport},
      {kLoopback, gw_.port(), -1, qva::errc::invalidtimeoutparm},
      {std::string("127.0.0.1\0x", 11), gw_.port(), 5, std::make_error_code(std::errc::invalid_argument)},
  };
  for (const auto& f : failures) {
    std::error_code ec;
    EXPECT_FALSE(qva::Connection::open(f.host, f.port, ec, f.timeout));
    EXPECT_EQ(ec, f.ec) << f.port << " " << f.timeout;
  }
}

TEST_F(CppTest, ErrorCodesAreNamedByTheLibrary) {
  EXPECT_STREQ(qva::category().name(), "qvaclient");
  const struct {
    std::error_code ec;
    int value;
    const char* message;
  } codes[] = {
      {qva::errc::badport, -107, "QVA_ERR_BADPORT"},
      {qva::errc::unknown_server, -22, "ECI_ERR_UNKNOWN_SERVER"},
      {qva::errc::work_was_refused, 0xF005, "QVA_ERR_WORK_WAS_REFUSED"},
      {qva::errc::memory_shortage, -111, "QVA_ERR_MALLOCFAIL"},  // a value both families use
      {qva::to_error_code(-57), -57, "UNKNOWN"},
  };
  for (const auto& c : codes) {
    EXPECT_EQ(c.ec.value(), c.value);
    EXPECT_EQ(&c.ec.category(), &qva::category());
    EXPECT_EQ(c.ec.message(), c.message);
  }
  EXPECT_EQ(qva::to_error_code(QVA_OK), std::error_code()) << "success is the default error_code";
  EXPECT_NE(std::error_code(-107, std::generic_category()), qva::errc::badport);
}

TEST_F(CppTest, ACommareaCallReturnsItsResultAbendCodeAndLength) {
  const std::string none(8, '\0');
  const struct {
    const char *program, *server;
    std::string area;
    size_t receive;
    std::error_code ec;
    std::string abend, after;
    size_t length;
  } cases[] = {
      {"ECHO", "", "hello", 0, {}, "", "hello", 5},
      {"UPPER", "QVATEST", "Mixed 1!", 0, {}, "", "MIXED 1!", 8},
      {"ECHO", "QVADEMO", "abcdefgh", 3, {}, "", std::string("abc\0\0\0\0\0", 8), 3},
      {"ABEND", "QVADEMO", "XY12rest", 0, qva::errc::transaction_abend, "XY12", none, 0},
      {"ECHO", "NOSUCH", "abcdefgh", 0, qva::errc::unknown_server, "", none, 0},
      {"ECHO", "QVADEMO12", "abc", 0, std::make_error_code(std::errc::value_too_large), "", "abc", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.program) + " on " + c.server);
    std::string area = c.area;
    const size_t sent = gw_.received(0).size();
    const qva::CallResult r =
        qva::Call(c.program).server(c.server).commarea(bytesOf(area), 0, c.receive).execute(connection_);
    EXPECT_EQ(r.ec, c.ec);
    EXPECT_EQ(r.abend(), c.abend);
    EXPECT_EQ(area, c.after);
    EXPECT_EQ(r.commarea_length, c.length);
    const bool refusedHere = c.ec.category() == std::generic_category();
    EXPECT_EQ(gw_.received(0).size() > sent, !refusedHere);
  }
  // A unit of work: the token that comes back goes on to the commit, which ends the unit.
  std::string area = "unit";
  qva::Call unit = qva::Call("ECHO").commarea(bytesOf(area)).extend_mode(qva::ExtendMode::extended);
  const qva::CallResult first = unit.execute(connection_);
  EXPECT_NE(first.luw_token, 0);
  const qva::CallResult commit =
      unit.luw_token(first.luw_token).extend_mode(qva::ExtendMode::commit).execute(connection_);
  EXPECT_EQ(commit.ec, std::error_code());
  EXPECT_EQ(commit.luw_token, 0);
  EXPECT_EQ(commit.commarea_length, 0u);
  EXPECT_EQ(unit.extend_mode(qva::ExtendMode::extended).execute(connection_).ec, qva::errc::luw_token);
  EXPECT_EQ(unit.timeout(std::chrono::seconds(32768)).execute(connection_).ec, std::errc::value_too_large);
}

TEST_F(CppTest, AChannelCallIsSeenThroughTheContainerRange) {
  std::error_code ec;
  qva::Channel channel = qva::Channel::create("SAMPLE", ec);
  ASSERT_FALSE(ec);
  EXPECT_EQ(channel.name(ec), "SAMPLE");
  const std::byte raw[] = {std::byte{0xA0}, std::byte{0x01}, std::byte{0x02}};
  EXPECT_FALSE(channel.create_container("FIRST", qva::ContainerType::bit, raw));
  EXPECT_FALSE(channel.create_container("TEXT", "hello", 37));
  EXPECT_FALSE(channel.create_container("RAW", qva::ContainerType::bit, raw, 37));
  EXPECT_EQ(channel.create_container("RAW", "again"), qva::errc::container_exists);
  EXPECT_EQ(channel.create_container("SEVENTEEN_CHARS_X", "x"), qva::errc::invalid_name);
  std::string area = "both";
  EXPECT_EQ(qva::Call("CHMIX").commarea(bytesOf(area)).execute(connection_, channel).ec,
            qva::errc::commarea_and_channel);

  // CHMIX: the first container deleted, the second upper-cased, the third doubled, MIXED added.
  const qva::CallResult r = qva::Call("CHMIX").execute(connection_, channel);
  ASSERT_FALSE(r.ec) << r.ec.message();
  std::vector<std::string> seen;
  for (const qva::ContainerView c : channel.containers(ec)) seen.push_back(describe(c));
  EXPECT_FALSE(ec);
  EXPECT_EQ(seen, (std::vector<std::string>{"MIXED bit 0 DEADBEEF", "TEXT char 37 HELLO", "FIRST bit 0 A00102A00102"}));

  // A walk may delete the container it stands on and goes on with the next.
  seen.clear();
  for (const qva::ContainerView c : channel.containers(ec)) {
    seen.push_back(std::string(c.name));
    if (c.name == "TEXT") {
      EXPECT_FALSE(channel.delete_container(c.name));
    }
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"MIXED", "TEXT", "FIRST"}));
  std::vector<std::byte> data;
  EXPECT_FALSE(channel.set_data("FIRST", "xyz"));
  EXPECT_FALSE(channel.get_data("FIRST", data));
  EXPECT_EQ(data, std::vector<std::byte>({std::byte{'x'}, std::byte{'y'}, std::byte{'z'}}));
  EXPECT_EQ(channel.get_data("TEXT", data), qva::errc::container_notfound);

  qva::Channel moved = std::move(channel);
  for (const qva::ContainerView c : channel.containers(ec)) ADD_FAILURE() << c.name;
  EXPECT_EQ(ec, qva::errc::invalid_channel);
  EXPECT_FALSE(moved.destroy());
  EXPECT_EQ(moved.destroy(), qva::errc::invalid_channel);
}

TEST_F(CppTest, ServerListsOfAnyLengthComeWhole) {
  // More than the first guess of the list's length: asked for again.
  qvaemu::Options options;
  for (int i = 0; i < 40; ++i) options.servers.push_back({"S" + std::to_string(i), "Server " + std::to_string(i)});
  qvaemu::Gateway many(options);
  ASSERT_TRUE(many.start());
  qva::Connection other = open(many.port());
  std::error_code ec;
  const std::vector<qva::Server> forty = other.list_servers(ec);
  EXPECT_FALSE(ec) << ec.message();
  ASSERT_EQ(forty.size(), 40u);
  EXPECT_EQ(forty[39].name, "S39");
  EXPECT_EQ(forty[39].description, "Server 39");
}

}  // namespace
