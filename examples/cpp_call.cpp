// Calls the server program ECHO with a text COMMAREA through a Gateway and
// prints the reply, then lists the Gateway's servers; with the C++ layer.
//   cpp_call HOST PORT [TEXT]
#include <qvaclient/qvaclient.hpp>

#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <system_error>

int main(int argc, char **argv) {
  if (argc < 3 || argc > 4) {
    std::fprintf(stderr, "usage: %s HOST PORT [TEXT]\n", argv[0]);
    return 2;
  }
  std::error_code ec;
  qva::Connection gateway = qva::Connection::open(argv[1], std::atoi(argv[2]), ec);
  if (ec) {
    std::fprintf(stderr, "cannot connect to %s:%s: %s\n", argv[1], argv[2], ec.message().c_str());
    return 1;
  }

  // The program rewrites the area in place; it is as long as the text, at least 32 bytes.
  std::string area = argc == 4 ? argv[3] : "hello, gateway";
  if (area.size() < 32) area.resize(32, '\0');
  const qva::CallResult reply = qva::Call("ECHO").commarea(std::as_writable_bytes(std::span(area))).execute(gateway);
  if (reply.ec) {
    std::fprintf(stderr, "ECHO failed: %s (abend code '%.*s')\n", reply.ec.message().c_str(),
                 static_cast<int>(reply.abend().size()), reply.abend().data());
    return 1;
  }
  area.resize(reply.commarea_length);
  std::printf("reply: %s\n", area.c_str());

  for (const qva::Server &server : gateway.list_servers(ec)) {
    std::printf("server %-8s %s\n", server.name.c_str(), server.description.c_str());
  }
  if (ec) {
    std::fprintf(stderr, "listing the servers failed: %s\n", ec.message().c_str());
    return 1;
  }
  // The connection closes when `gateway` goes out of scope; close() reports how it went.
  ec = gateway.close();
  return ec ? 1 : 0;
}
