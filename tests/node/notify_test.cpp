#include "node/notify.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "core/file_io.h"
#include "support/chain_builder.h"

namespace norvel::node {
namespace {

TEST(Notify, ReachesPathsAndAbstractNames) {
  const TemporaryDirectory directory;
  for (const std::string& name : {directory / "socket", "@norvel-test-" + std::to_string(getpid())}) {
    SCOPED_TRACE(name);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, name.size());
    if (name[0] == '@') {
      address.sun_path[0] = '\0';
    }
    const FileDescriptor receiver(socket(AF_UNIX, SOCK_DGRAM, 0));
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    ASSERT_EQ(bind(receiver.get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    EXPECT_TRUE(notify_service_manager("READY=1"));
    char text[32] = {};
    ASSERT_EQ(recv(receiver.get(), text, sizeof(text), MSG_DONTWAIT), 7);
    EXPECT_STREQ(text, "READY=1");
  }
  for (const std::string& name : {std::string(), std::string("relative"), "/" + std::string(200, 'x')}) {
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    EXPECT_FALSE(notify_service_manager("READY=1"));
  }
  unsetenv("NOTIFY_SOCKET");
  EXPECT_FALSE(notify_service_manager("READY=1"));
}

}  // namespace
}  // namespace norvel::node
