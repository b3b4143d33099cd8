// Built against an installed qvaclient only (find_package), with the C++
// layer: calls ECHO on the Gateway at 127.0.0.1:PORT, then lists its servers,
// one per line, as the C consumers do. Exits 0 only when both work.
#include <qvaclient/qvaclient.hpp>

#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s PORT\n", argv[0]);
    return 2;
  }
  std::error_code ec;
  qva::Connection gateway = qva::Connection::open("127.0.0.1", std::atoi(argv[1]), ec, 10);
  if (ec) {
    std::fprintf(stderr, "open: %s\n", ec.message().c_str());
    return 1;
  }
  constexpr std::string_view sent = "installed tree, C++ layer";
  std::string area(sent);
  area.resize(32, '\0');
  const qva::CallResult reply = qva::Call("ECHO").commarea(std::as_writable_bytes(std::span(area))).execute(gateway);
  if (reply.ec || std::string_view(area.c_str()) != sent) {
    std::fprintf(stderr, "ECHO: %s, \"%s\"\n", reply.ec.message().c_str(), area.c_str());
    return 1;
  }
  std::printf("ECHO: %s\n", area.c_str());
  for (const qva::Server &server : gateway.list_servers(ec))
    std::printf("server %s: %s\n", server.name.c_str(), server.description.c_str());
  if (ec) {
    std::fprintf(stderr, "list: %s\n", ec.message().c_str());
    return 1;
  }
  ec = gateway.close();
  return ec ? 1 : 0;
}
