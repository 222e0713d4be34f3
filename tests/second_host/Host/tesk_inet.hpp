#ifndef SECOND_HOST_TESK_INET_HPP
#define SECOND_HOST_TESK_INET_HPP

namespace Tesk::INet {

char const* str_from_ip(unsigned int ip);

} // namespace Tesk::INet

#endif
