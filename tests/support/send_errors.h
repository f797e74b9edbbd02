// What a send may give beside an interruption and a lack of room.
#pragma once

#include <cerrno>
#include <vector>

namespace support {

inline const std::vector<int> SEND_ERRORS = {
    EACCES,      EALREADY,     EBADF,   EBUSY,     ECONNREFUSED,
    ECONNRESET,  EDESTADDRREQ, EFAULT,  EHOSTDOWN, EHOSTUNREACH,
    EINVAL,      EIO,          EISCONN, EMSGSIZE,  ENETDOWN,
    ENETUNREACH, ENOBUFS,      ENODEV,  ENOMEM,    ENOTCONN,
    ENOTSOCK,    EOPNOTSUPP,   EPERM,   EPIPE,     ETIMEDOUT};

} // namespace support
