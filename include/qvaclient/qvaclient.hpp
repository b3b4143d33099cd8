/* qvaclient for C++20: owning handles for connections and channels, a builder
 * for program calls, and results as std::error_code, over the C interface of
 * qvaclient.h.
 *
 * Header-only: everything is inline, so the shared library exports nothing
 * more. Nothing here throws: it compiles with -fno-exceptions and -fno-rtti
 * (an allocation that fails ends the program, as the standard library does
 * without exceptions). A Connection may only be used, and closed, by the
 * thread that opened it; see docs/CPP.md and docs/THREADS.md. */
#ifndef QVACLIENT_QVACLIENT_HPP
#define QVACLIENT_QVACLIENT_HPP

#if __cplusplus < 202002L
#error "qvaclient/qvaclient.hpp needs C++20 (std::span); older C++ can use the C interface, qvaclient/qvaclient.h"
#endif

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include "qvaclient.h"

namespace qva {

/* ---- Result codes ------------------------------------------------------------ */

// Every code of qva_codes.h under its C name in lower case, without the
// QVA_ERR_ or ECI_ERR_ prefix; null_ptr stands for NULLPTR, a keyword. A name
// that both families use (SYSTEM_ERROR, LOCKFAIL, ...) is one enumerator.
enum class errc : int {
  invalid_data_length = QVA_ERR_INVALID_DATA_LENGTH,
  system_error = QVA_ERR_SYSTEM_ERROR,
  more_systems = QVA_ERR_MORE_SYSTEMS,
  no_systems = QVA_ERR_NO_SYSTEMS,
  nullgwtok = QVA_ERR_NULLGWTOK,
  badgwtok = QVA_ERR_BADGWTOK,
  lostgwcon = QVA_ERR_LOSTGWCON,
  nullparm = QVA_ERR_NULLPARM,
  tracelevel = QVA_ERR_TRACELEVEL,
  badport = QVA_ERR_BADPORT,
  nullgwtokptr = QVA_ERR_NULLGWTOKPTR,
  null_ptr = QVA_ERR_NULLPTR,
  mallocfail = QVA_ERR_MALLOCFAIL,
  badgwtoklist = QVA_ERR_BADGWTOKLIST,
  connectfailed = QVA_ERR_CONNECTFAILED,
  lockfail = QVA_ERR_LOCKFAIL,
  pidmismatch = QVA_ERR_PIDMISMATCH,
  tidmismatch = QVA_ERR_TIDMISMATCH,
  tracefile = QVA_ERR_TRACEFILE,
  badhost = QVA_ERR_BADHOST,
  nulladdress = QVA_ERR_NULLADDRESS,
  connecttimeout = QVA_ERR_CONNECTTIMEOUT,
  nullecipointer = QVA_ERR_NULLECIPOINTER,
  invalidtimeoutparm = QVA_ERR_INVALIDTIMEOUTPARM,
  unknown_request_type = QVA_ERR_UNKNOWN_REQUEST_TYPE,
  gateway_closed = QVA_ERR_GATEWAY_CLOSED,
  work_was_refused = QVA_ERR_WORK_WAS_REFUSED,
  gateway_exception = QVA_ERR_GATEWAY_EXCEPTION,
  gateway_back_level = QVA_ERR_GATEWAY_BACK_LEVEL,
  invalid_request_type = QVA_ERR_INVALID_REQUEST_TYPE,
  invalid_extend_mode = ECI_ERR_INVALID_EXTEND_MODE,
  no_vesk = ECI_ERR_NO_VESK,
  vesk_died = ECI_ERR_VESK_DIED,
  request_timeout = ECI_ERR_REQUEST_TIMEOUT,
  response_timeout = ECI_ERR_RESPONSE_TIMEOUT,
  transaction_abend = ECI_ERR_TRANSACTION_ABEND,
  luw_token = ECI_ERR_LUW_TOKEN,
  invalid_call_type = ECI_ERR_INVALID_CALL_TYPE,
  resource_shortage = ECI_ERR_RESOURCE_SHORTAGE,
  no_sessions = ECI_ERR_NO_SESSIONS,
  invalid_data_area = ECI_ERR_INVALID_DATA_AREA,
  invalid_version = ECI_ERR_INVALID_VERSION,
  unknown_server = ECI_ERR_UNKNOWN_SERVER,
  security_error = ECI_ERR_SECURITY_ERROR,
  max_systems = ECI_ERR_MAX_SYSTEMS,
  max_sessions = ECI_ERR_MAX_SESSIONS,
  rolledback = ECI_ERR_ROLLEDBACK,
  invalid_channel = ECI_ERR_INVALID_CHANNEL,
  invalid_name = ECI_ERR_INVALID_NAME,
  nullchannelptr = ECI_ERR_NULLCHANNELPTR,
  channellockfail = ECI_ERR_CHANNELLOCKFAIL,
  endofcontainers = ECI_ERR_ENDOFCONTAINERS,
  nullinfoptr = ECI_ERR_NULLINFOPTR,
  invalid_type = ECI_ERR_INVALID_TYPE,
  container_notfound = ECI_ERR_CONTAINER_NOTFOUND,
  container_exists = ECI_ERR_CONTAINER_EXISTS,
  commarea_and_channel = ECI_ERR_COMMAREA_AND_CHANNEL,
  memory_shortage = ECI_ERR_MEMORY_SHORTAGE,
};

// The category of every code the library returns. Its messages are the
// library's own names of the codes, "UNKNOWN" for a value it does not know.
class ErrorCategory final : public std::error_category {
 public:
  const char *name() const noexcept override { return "qvaclient"; }
  std::string message(int rc) const override {
    char text[QVA_RC_STRING_SIZE] = {};
    return QVA_getRcString(rc, text);
  }
};

inline const std::error_category &category() noexcept {
  static const ErrorCategory instance{};
  return instance;
}

// A result code of the C interface as an error_code. 0 is the default
// error_code, as success is everywhere in the standard library, so that a
// result compares equal to std::error_code().
inline std::error_code to_error_code(int rc) noexcept {
  return rc == 0 ? std::error_code() : std::error_code(rc, category());
}

inline std::error_code make_error_code(errc code) noexcept { return to_error_code(static_cast<int>(code)); }

}  // namespace qva

template <>
struct std::is_error_code_enum<qva::errc> : std::true_type {};

namespace qva {

namespace detail {

// Fills a fixed character field, blank padded, without terminator. A text
// that does not fit, or holds a NUL, is refused rather than cut: a program
// or server name cut short would call another one.
template <std::size_t N>
inline bool setField(char (&field)[N], std::string_view text) noexcept {
  if (text.size() > N || text.find('\0') != std::string_view::npos) return false;
  std::memset(field, ' ', N);
  std::memcpy(field, text.data(), text.size());
  return true;
}

// A channel or container name as the C functions take it: NUL-terminated.
// Longer than 16 characters, or holding a NUL, it is the library's own
// ECI_ERR_INVALID_NAME without a call.
class Name {
 public:
  explicit Name(std::string_view name) noexcept
      : valid_(name.size() < sizeof text_ && name.find('\0') == std::string_view::npos) {
    if (valid_) std::memcpy(text_, name.data(), name.size());
  }
  bool valid() const noexcept { return valid_; }
  const char *c_str() const noexcept { return text_; }

 private:
  char text_[17] = {};
  bool valid_;
};

// A fixed field's text up to its first NUL.
template <std::size_t N>
inline std::string fieldText(const char (&field)[N]) {
  const void *nul = std::memchr(field, '\0', N);
  return std::string(field, nul != nullptr ? static_cast<std::size_t>(static_cast<const char *>(nul) - field) : N);
}

// The C interface counts in short; what does not fit is refused.
inline constexpr short kShortMax = 32767;

}  // namespace detail

/* ---- Connections ----------------------------------------------------------- */

// One server the Gateway knows.
struct Server {
  std::string name;
  std::string description;  // trailing blanks dropped
};

// One open Gateway connection; closes it when destroyed. Move-only: a
// moved-from Connection is empty and closes nothing.
class Connection {
 public:
  Connection() noexcept = default;
  ~Connection() { reset(); }
  Connection(Connection &&other) noexcept : token_(std::exchange(other.token_, nullptr)) {}
  Connection &operator=(Connection &&other) noexcept {
    if (this != &other) {
      reset();
      token_ = std::exchange(other.token_, nullptr);
    }
    return *this;
  }
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;

  // Opens a connection to the Gateway at host:port. The result goes to ec,
  // as in the standard library's non-throwing overloads (std::filesystem):
  // C++20 has no std::expected, and an out-parameter needs no result type of
  // our own. On failure the Connection returned is empty. connTimeout is the
  // C function's: 0 to 3600 seconds. A host name holding a NUL gives
  // std::errc::invalid_argument.
  [[nodiscard]] static Connection open(std::string_view host, int port, std::error_code &ec, int connTimeout = 0) {
    Connection connection;
    const std::string name(host);
    if (name.find('\0') != std::string::npos) {
      ec = std::make_error_code(std::errc::invalid_argument);
      return connection;
    }
    ec = to_error_code(QVA_openRemoteGatewayConnection(name.c_str(), port, &connection.token_, connTimeout));
    if (ec) connection.token_ = nullptr;
    return connection;
  }

  // Closes the connection and empties this object; on an empty one the
  // library's QVA_ERR_NULLGWTOK. Closed from another thread than the one that
  // opened it, it fails (QVA_ERR_TIDMISMATCH) and the connection stays open.
  [[nodiscard]] std::error_code close() noexcept { return to_error_code(QVA_closeGatewayConnection(&token_)); }

  // The servers the Gateway knows. A list longer than a first guess is asked
  // for again at its full length.
  [[nodiscard]] std::vector<Server> list_servers(std::error_code &ec) {
    std::vector<QVA_SYSTEM_ENTRY> entries(16);
    unsigned short count = 0;
    int rc = QVA_OK;
    for (int attempt = 0; attempt < 2; ++attempt) {
      count = static_cast<unsigned short>(entries.size());
      rc = QVA_listSystems(token_, &count, entries.data());
      if (rc != QVA_ERR_MORE_SYSTEMS || count <= entries.size()) break;
      entries.resize(count);
    }
    ec = to_error_code(rc);
    std::vector<Server> servers;
    if (rc != QVA_OK && rc != QVA_ERR_MORE_SYSTEMS) return servers;
    for (std::size_t i = 0; i < count && i < entries.size(); ++i) {
      const QVA_SYSTEM_ENTRY &e = entries[i];
      std::string description = detail::fieldText(e.Description);
      description.erase(description.find_last_not_of(' ') + 1);
      servers.push_back({detail::fieldText(e.SystemName), description});
    }
    return servers;
  }

  bool is_open() const noexcept { return token_ != nullptr; }
  explicit operator bool() const noexcept { return is_open(); }
  QvaGatewayToken *native_handle() const noexcept { return token_; }
  // Gives up ownership: the caller closes the token.
  [[nodiscard]] QvaGatewayToken *release() noexcept { return std::exchange(token_, nullptr); }

 private:
  // A destructor cannot report: the close's result is dropped here.
  void reset() noexcept {
    if (token_ != nullptr) QVA_closeGatewayConnection(&token_);
    token_ = nullptr;
  }

  QvaGatewayToken *token_ = nullptr;
};

/* ---- Channels and containers ------------------------------------------------ */

enum class ContainerType : std::uint32_t { bit = ECI_BIT, character = ECI_CHAR };

// One container as a walk over a channel shows it. Its name and data belong
// to the iterator that made it and stay valid until that iterator moves on.
struct ContainerView {
  std::string_view name;
  ContainerType type = ContainerType::bit;
  std::uint32_t ccsid = 0;  // 0 for ContainerType::bit
  std::span<const std::byte> data;
  std::string_view text() const noexcept { return {reinterpret_cast<const char *>(data.data()), data.size()}; }
};

// Walks a channel with the library's own cursor (ECI_getFirstContainer, then
// ECI_getNextContainer), newest container first, copying one container's data
// at a time into a buffer of its own. The cursor is the channel's: one walk
// at a time per channel. Deleting the container the walk stands on is
// allowed; the walk goes on with the next one.
class ContainerIterator {
 public:
  using value_type = ContainerView;
  using difference_type = std::ptrdiff_t;
  using iterator_concept = std::input_iterator_tag;

  ContainerIterator() = default;

  // Made on each call, so that a copied or moved iterator never shows the
  // storage of another.
  ContainerView operator*() const noexcept {
    return {std::string_view(info_.name), static_cast<ContainerType>(info_.type), info_.ccsid, data_};
  }
  ContainerIterator &operator++() {
    step(ECI_getNextContainer(channel_, &info_));
    return *this;
  }
  void operator++(int) { ++*this; }
  friend bool operator==(const ContainerIterator &it, std::default_sentinel_t) noexcept {
    return it.channel_ == nullptr;
  }

 private:
  friend class ContainerRange;
  ContainerIterator(QvaChannel *channel, std::error_code *ec) : channel_(channel), ec_(ec) {
    step(ECI_getFirstContainer(channel_, &info_));
  }

  // Ends the walk at its end or at the first failure, which goes to ec_.
  void step(int rc) {
    if (rc == ECI_NO_ERROR) {
      data_.resize(info_.dataLength);
      std::uint32_t got = 0;
      if (!data_.empty()) rc = ECI_getContainerData(channel_, info_.name, data_.data(), info_.dataLength, 0, &got);
      data_.resize(got);
    }
    if (rc == ECI_NO_ERROR) return;
    if (rc != ECI_ERR_ENDOFCONTAINERS && ec_ != nullptr) *ec_ = to_error_code(rc);
    channel_ = nullptr;
  }

  QvaChannel *channel_ = nullptr;
  std::error_code *ec_ = nullptr;
  ContainerInfo info_{};
  std::vector<std::byte> data_;
};

// The containers of a channel as a range; see ContainerIterator.
class ContainerRange {
 public:
  ContainerIterator begin() const { return ContainerIterator(channel_, ec_); }
  std::default_sentinel_t end() const noexcept { return {}; }

 private:
  friend class Channel;
  ContainerRange(QvaChannel *channel, std::error_code &ec) noexcept : channel_(channel), ec_(&ec) {}

  QvaChannel *channel_;
  std::error_code *ec_;
};

// A channel of the library's; deleted, with its containers, when destroyed.
// Move-only. Any thread may use it (the library locks each channel).
class Channel {
 public:
  Channel() noexcept = default;
  ~Channel() {
    if (token_ != nullptr) ECI_deleteChannel(&token_);
  }
  Channel(Channel &&other) noexcept : token_(std::exchange(other.token_, nullptr)) {}
  Channel &operator=(Channel &&other) noexcept {
    if (this != &other) {
      if (token_ != nullptr) ECI_deleteChannel(&token_);
      token_ = std::exchange(other.token_, nullptr);
    }
    return *this;
  }
  Channel(const Channel &) = delete;
  Channel &operator=(const Channel &) = delete;

  // An empty channel; on failure the Channel returned is empty.
  [[nodiscard]] static Channel create(std::string_view name, std::error_code &ec) {
    Channel channel;
    const detail::Name n(name);
    ec = to_error_code(n.valid() ? ECI_createChannel(n.c_str(), &channel.token_) : ECI_ERR_INVALID_NAME);
    if (ec) channel.token_ = nullptr;
    return channel;
  }

  // Deletes the channel now and empties this object; on an empty one the
  // library's ECI_ERR_INVALID_CHANNEL.
  [[nodiscard]] std::error_code destroy() noexcept { return to_error_code(ECI_deleteChannel(&token_)); }

  [[nodiscard]] std::string name(std::error_code &ec) const {
    char text[17] = {};
    ec = to_error_code(ECI_getChannelName(token_, text));
    return ec ? std::string() : std::string(text);
  }

  // A container holding a copy of data. The CCSID counts for
  // ContainerType::character only; 0 takes the channel's.
  [[nodiscard]] std::error_code create_container(std::string_view name, ContainerType type,
                                                 std::span<const std::byte> data, std::int32_t ccsid = 0) {
    const detail::Name n(name);
    if (!n.valid()) return errc::invalid_name;
    if (data.size() > UINT32_MAX) return std::make_error_code(std::errc::value_too_large);
    return to_error_code(ECI_createContainer(token_, n.c_str(), static_cast<std::int32_t>(type), ccsid, data.data(),
                                             static_cast<std::uint32_t>(data.size())));
  }
  // A character container holding text.
  [[nodiscard]] std::error_code create_container(std::string_view name, std::string_view text, std::int32_t ccsid = 0) {
    return create_container(name, ContainerType::character, std::as_bytes(std::span(text)), ccsid);
  }

  // Replaces a container's data; its type and CCSID stay.
  [[nodiscard]] std::error_code set_data(std::string_view name, std::span<const std::byte> data) {
    const detail::Name n(name);
    if (!n.valid()) return errc::invalid_name;
    if (data.size() > UINT32_MAX) return std::make_error_code(std::errc::value_too_large);
    return to_error_code(ECI_setContainerData(token_, n.c_str(), data.data(), static_cast<std::uint32_t>(data.size())));
  }
  [[nodiscard]] std::error_code set_data(std::string_view name, std::string_view text) {
    return set_data(name, std::as_bytes(std::span(text)));
  }

  // A copy of a container's whole data.
  [[nodiscard]] std::error_code get_data(std::string_view name, std::vector<std::byte> &out) const {
    const detail::Name n(name);
    if (!n.valid()) return errc::invalid_name;
    ContainerInfo info{};
    int rc = ECI_getContainerInfo(token_, n.c_str(), &info);
    out.resize(rc == ECI_NO_ERROR ? info.dataLength : 0);
    std::uint32_t got = 0;
    if (rc == ECI_NO_ERROR && !out.empty())
      rc = ECI_getContainerData(token_, n.c_str(), out.data(), info.dataLength, 0, &got);
    out.resize(got);
    return to_error_code(rc);
  }

  [[nodiscard]] std::error_code delete_container(std::string_view name) {
    const detail::Name n(name);
    return to_error_code(n.valid() ? ECI_deleteContainer(token_, n.c_str()) : ECI_ERR_INVALID_NAME);
  }

  // The containers, newest first; a failure of the walk ends it and goes to
  // ec (cleared here). Begin each walk anew after a channel call.
  [[nodiscard]] ContainerRange containers(std::error_code &ec) const noexcept {
    ec.clear();
    return ContainerRange(token_, ec);
  }

  explicit operator bool() const noexcept { return token_ != nullptr; }
  QvaChannel *native_handle() const noexcept { return token_; }
  // Gives up ownership: the caller deletes the channel.
  [[nodiscard]] QvaChannel *release() noexcept { return std::exchange(token_, nullptr); }

 private:
  QvaChannel *token_ = nullptr;
};

/* ---- Program calls ------------------------------------------------------------ */

enum class ExtendMode : short {
  no_extend = ECI_NO_EXTEND,
  extended = ECI_EXTENDED,
  commit = ECI_COMMIT,
  backout = ECI_BACKOUT,
};

struct CallResult {
  std::error_code ec;                // the call's result code
  std::array<char, 4> abend_code{};  // as the server returned it; blank or NUL when none
  std::int32_t luw_token = 0;        // to pass on to the next call of an extended unit of work
  // The bytes of the COMMAREA the reply was given: the receive length when
  // one was set, else the whole area; 0 for a failed call, a commit or a
  // backout, and for a channel call. The C interface does not say how many
  // of them the program filled: a shorter reply leaves the rest zeroed.
  std::size_t commarea_length = 0;

  // The abend code without trailing blanks and NULs; empty when none.
  std::string_view abend() const noexcept {
    std::string_view code(abend_code.data(), abend_code.size());
    const auto end = code.find_last_not_of(std::string_view(" \0", 2));
    return code.substr(0, end == std::string_view::npos ? 0 : end + 1);
  }
};

// Builds one program call and runs it on a connection, with a COMMAREA or a
// channel. Character fields are blank padded; a value that does not fit its
// field (or holds a NUL) or a number the C interface cannot carry makes
// execute() return std::errc::value_too_large without calling.
class Call {
 public:
  explicit Call(std::string_view program) {
    std::memset(&parms_, 0, sizeof parms_);
    parms_.eci_call_type = ECI_SYNC;
    parms_.eci_version = ECI_VERSION_4;
    check(detail::setField(parms_.eci_program_name, program));
    check(detail::setField(parms_.eci_system_name, ""));
    check(detail::setField(parms_.eci_userid, ""));
    check(detail::setField(parms_.eci_password, ""));
  }
  Call(const Call &) = default;
  Call &operator=(const Call &) = default;
  // The password is not left behind in freed memory.
  ~Call() { wipe(parms_); }

  // The target server; blank (the default) is the Gateway's first one.
  Call &server(std::string_view name) { return check(detail::setField(parms_.eci_system_name, name)); }
  Call &user(std::string_view id) { return check(detail::setField(parms_.eci_userid, id)); }
  Call &password(std::string_view secret) { return check(detail::setField(parms_.eci_password, secret)); }
  Call &transid(std::string_view id) { return check(detail::setField(parms_.eci_transid, id)); }
  // Sent in place of the transid when set.
  Call &tpn(std::string_view name) { return check(detail::setField(parms_.eci_tpn, name)); }

  // The area the program reads and rewrites; it must outlive execute(). A
  // sendLength > 0 sends only that many bytes, a receiveLength > 0 asks for
  // at most that many back (both capped at the area's size by the library).
  Call &commarea(std::span<std::byte> area, std::size_t sendLength = 0, std::size_t receiveLength = 0) {
    const auto max = static_cast<std::size_t>(detail::kShortMax);
    check(area.size() <= max && sendLength <= max && receiveLength <= max);
    parms_.eci_commarea = area.empty() ? nullptr : area.data();
    parms_.eci_commarea_length = static_cast<short>(area.size() <= max ? area.size() : 0);
    parms_.eci_send_length = static_cast<short>(sendLength <= max ? sendLength : 0);
    parms_.eci_receive_length = static_cast<short>(receiveLength <= max ? receiveLength : 0);
    return *this;
  }

  Call &extend_mode(ExtendMode mode) {
    parms_.eci_extend_mode = static_cast<short>(mode);
    return *this;
  }
  Call &luw_token(std::int32_t token) {
    parms_.eci_luw_token = token;
    return *this;
  }
  // Enforced by the Gateway; 0, the default, sets no limit.
  Call &timeout(std::chrono::seconds limit) {
    const auto s = limit.count();
    const bool fits = s >= -detail::kShortMax - 1 && s <= detail::kShortMax;
    parms_.eci_timeout = static_cast<short>(fits ? s : 0);
    return check(fits);
  }

  // A COMMAREA call (QVA_ECI_Execute).
  [[nodiscard]] CallResult execute(Connection &connection) const {
    return run(parms_, [&](ECI_PARMS &p) { return QVA_ECI_Execute(connection.native_handle(), &p); });
  }

  // A channel call (QVA_ECI_Execute_Channel): the containers the program
  // added, changed or deleted are merged into the channel. A COMMAREA set as
  // well is refused by the library (ECI_ERR_COMMAREA_AND_CHANNEL).
  [[nodiscard]] CallResult execute(Connection &connection, Channel &channel) const {
    ECI_PARMS parms = parms_;
    parms.eci_channel = channel.native_handle();
    CallResult result =
        run(parms, [&](ECI_PARMS &p) { return QVA_ECI_Execute_Channel(connection.native_handle(), &p); });
    result.commarea_length = 0;
    wipe(parms);
    return result;
  }

 private:
  Call &check(bool ok) {
    if (!ok) valid_ = false;
    return *this;
  }

  static void wipe(ECI_PARMS &parms) noexcept {
    volatile char *p = parms.eci_password;
    for (std::size_t i = 0; i < sizeof parms.eci_password; ++i) p[i] = '\0';
  }

  // Runs the call on a copy of the block, whose outputs go to the result.
  template <typename Execute>
  CallResult run(const ECI_PARMS &in, Execute execute) const {
    CallResult result;
    if (!valid_) {
      result.ec = std::make_error_code(std::errc::value_too_large);
      return result;
    }
    ECI_PARMS parms = in;
    result.ec = to_error_code(execute(parms));
    std::memcpy(result.abend_code.data(), parms.eci_abend_code, result.abend_code.size());
    result.luw_token = parms.eci_luw_token;
    const bool unitEnds = parms.eci_extend_mode == ECI_COMMIT || parms.eci_extend_mode == ECI_BACKOUT;
    if (!result.ec && !unitEnds) {
      const short receive = parms.eci_receive_length;
      const short length = parms.eci_commarea_length;
      result.commarea_length = static_cast<std::size_t>(receive > 0 && receive < length ? receive : length);
    }
    wipe(parms);
    return result;
  }

  ECI_PARMS parms_;
  bool valid_ = true;
};

}  // namespace qva

#endif /* QVACLIENT_QVACLIENT_HPP */
