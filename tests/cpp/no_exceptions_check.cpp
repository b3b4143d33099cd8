// Compiled with -fno-exceptions -fno-rtti: the whole C++ layer in use, so
// that every template of it is instantiated in such a build.
#include <ranges>

#include "qvaclient/qvaclient.hpp"

static_assert(std::ranges::input_range<qva::ContainerRange>);
static_assert(std::is_error_code_enum_v<qva::errc>);

std::size_t noExceptionsEcho(int port) {
  std::error_code ec;
  qva::Connection connection = qva::Connection::open("127.0.0.1", port, ec);
  std::byte area[8] = {};
  const qva::CallResult result = qva::Call("ECHO").commarea(area).execute(connection);
  std::size_t seen = result.commarea_length + connection.list_servers(ec).size();
  qva::Channel channel = qva::Channel::create("CHECK", ec);
  if (channel.create_container("TEXT", "text")) return 0;
  for (const qva::ContainerView c : channel.containers(ec)) seen += c.data.size();
  return seen + result.ec.message().size();
}
