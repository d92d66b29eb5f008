#pragma once

#include <string>

namespace test {

/// An access ACL, as its extended attribute holds it, that gives user 33 everything: owner rw-,
/// user 33 rwx, group r--, mask rwx, others ---.
inline const std::string kOpenAcl(
    "\x02\0\0\0"
    "\x01\0\x06\0\xff\xff\xff\xff"
    "\x02\0\x07\0\x21\0\0\0"
    "\x04\0\x04\0\xff\xff\xff\xff"
    "\x10\0\x07\0\xff\xff\xff\xff"
    "\x20\0\0\0\xff\xff\xff\xff",
    44);

}  // namespace test
