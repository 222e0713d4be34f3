// Address text: what the relay requires of its host. Declaration only; any thread, any lock held.
#ifndef HOST_TESK_INET_HPP
#define HOST_TESK_INET_HPP

namespace Tesk::INet {

/// Dotted decimal of an address in network byte order. Owner: the host; valid at least until this thread's next call.
char const* str_from_ip(unsigned int ip);

} // namespace Tesk::INet

#endif
