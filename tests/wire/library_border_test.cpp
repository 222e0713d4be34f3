// What crosses the border of the shared library as it ships: the exception of initialize.

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace {

namespace INet_Relay = Zolt::Center::INet_Relay;

int count_instances() {
    int count = 0;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        count += std::filesystem::read_symlink(entry.path(), gone) == "anon_inode:[eventpoll]";
    }
    return count;
}

/// Lets the process open that many descriptors more, for as long as it lives.
class descriptor_allowance {
public:
    explicit descriptor_allowance(rlim_t more) {
        ::getrlimit(RLIMIT_NOFILE, &before);
        int const next = ::dup(0);
        ::close(next);
        ::rlimit const tight{static_cast<rlim_t>(next) + more, before.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &tight);
    }
    ~descriptor_allowance() { ::setrlimit(RLIMIT_NOFILE, &before); }

private:
    ::rlimit before{};
};

TEST(library_border, a_string_tells_the_host_that_the_fourth_instance_could_not_be_made) {
    ASSERT_NE(::fcntl(0, F_GETFD), -1) << "this test looks whether descriptor 0 survives";
    std::string caught;
    {
        descriptor_allowance const three(3);
        try {
            INet_Relay::initialize();
        } catch (std::string const& text) {
            caught = text;
        }
    }
    EXPECT_EQ(caught, "epoll_create 에러");
    EXPECT_EQ(count_instances(), 3) << "those made before stay open";
    INet_Relay::finalize();
    EXPECT_EQ(count_instances(), 0);
    EXPECT_NE(::fcntl(0, F_GETFD), -1) << "finalize closed a descriptor that was never its own";
}

} // namespace
