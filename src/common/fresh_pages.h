// Makes the operating system back a block of freshly allocated memory in one
// request rather than one page fault per page as it is first written.
#pragma once

#include <cstddef>

namespace tonwerk {

// A hint: the whole pages inside [data, data + bytes) are mapped writable
// now. Changes no value; does nothing where the system offers no such
// request (Windows, Linux before 5.14) or refuses it.
void prepareForWriting(void* data, std::size_t bytes);

}  // namespace tonwerk
