// The control socket's net under its handler: a handler that throws costs its client one refusal and the
// process a trace line, never the process itself; the same client is answered afterwards.
#include "platform/io/ControlSocket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>

#include "testkit/TempStateDir.h"
#include "tests/support/TraceCapture.h"

namespace {

TEST(ControlSocketTest, AHandlerThatThrowsCostsOneRefusalAndATraceLine) {
  Calyx::Test::TempStateDir dir;
  Calyx::Test::TraceCapture trace("Calyx-Control", Calyx::kTraceLevelsAll);
  auto loop = Calyx::EventLoop::makeReal();
  auto const handler = [](std::string const& request) -> std::string {
    if (request == "throw") throw std::out_of_range("no such thing");
    if (request == "throw-int") throw 7;
    return "fine: " + request;
  };
  Calyx::ControlSocket socket(*loop, dir.file("ctl.sock"), handler,
                              [](auto const& why) { return "no: " + why; });
  auto const opened = socket.open();
  ASSERT_TRUE(opened) << opened.error().text();
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{AF_UNIX, {}};
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", socket.path().c_str());
  ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  std::string const requests = "throw\nthrow-int\nhello\n";
  ASSERT_EQ(send(fd, requests.data(), requests.size(), MSG_NOSIGNAL), ssize_t(requests.size()));
  std::string in;
  for (int i = 0; i < 200 && std::count(in.begin(), in.end(), '\n') < 3; ++i) {
    loop->runFor(0.01);
    char chunk[512];
    ssize_t const n = recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
    if (n > 0) in.append(chunk, size_t(n));
  }
  close(fd);
  EXPECT_EQ(
      in,
      "no: internal error: no such thing\nno: internal error: an exception of unknown type\nfine: hello\n");
  ASSERT_EQ(trace.lines(1).size(), 2u);
  EXPECT_EQ(trace.lines(1)[0], "[ERROR] Control request failed: no such thing; request: throw.");
}

}  // namespace
