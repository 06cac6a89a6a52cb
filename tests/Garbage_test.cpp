// Bytes that mean nothing, and connections that say nothing.

#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/xpc/contract/Limits.h"
#include "tests/support/BrokerLink.h"
#include "tests/support/LibraryTest.h"

namespace velto::testing {
namespace {

class Garbage : public LibraryTest {
 protected:
  // A connection to the broker's socket that says nothing by itself; closed at the end.
  class RawConnection {
   public:
    explicit RawConnection(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      path.copy(address.sun_path, sizeof address.sun_path - 1);
      if (::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ADD_FAILURE() << "no connection to '" << path << "': " << std::strerror(errno);
      }
    }
    ~RawConnection() { ::close(socket_); }
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    void say(const std::string& bytes) const { ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
    // True once the other end has hung up; what it says before that is skipped.
    bool isHungUpOn() const {
      const timeval bound{kBound.count(), 0};
      setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
      char heard[4096];
      ssize_t count = 1;
      while (count > 0) count = ::recv(socket_, heard, sizeof heard, 0);
      return count == 0 || errno == ECONNRESET;
    }

   private:
    const int socket_;
  };
};

TEST_F(Garbage, AtTheBrokersSocketEndsThatConnectionAndNoOther) {
  Pair pair;
  pair.server.delegate->echo();
  const std::vector<std::string> nonsense{"GET / HTTP/1.1\r\n\r\n", std::string(100'000, '\xff'),
                                          std::string(100'000, '\0'), "\x7f" + std::string(64, '\x9f')};
  for (const std::string& bytes : nonsense) {
    const RawConnection raw(directory.socket().string());
    raw.say(bytes);
    EXPECT_TRUE(raw.isHungUpOn()) << bytes.substr(0, 16);
    pair.roundTrip();
    EXPECT_TRUE(TestLink().find("org.velto.test.pair"));
  }
  ClientEnd late("org.velto.test.pair");
  late.ready();
  EXPECT_TRUE(pair.client.delegate->errors().empty());
  EXPECT_TRUE(pair.server.delegate->errors().empty());
}

TEST_F(Garbage, ManySilentConnectionsKeepNobodyOut) {
  const std::string path = directory.socket().string();
  std::vector<std::unique_ptr<RawConnection>> silent;
  for (std::size_t number = 0; number < limits::kSilentConnections + 20; ++number) {
    silent.push_back(std::make_unique<RawConnection>(path));
  }
  Pair pair;
  pair.server.delegate->echo();
  pair.roundTrip();
}

}  // namespace
}  // namespace velto::testing
