// A pointer-sized number as text and back: how a waiting call is named inside a message.
#ifndef MIVO_BASE_POINTER_TEXT_H_
#define MIVO_BASE_POINTER_TEXT_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace mivo {

// "0x" and lower-case hexadecimal digits, the same in every locale.
std::string PointerToText(std::uintptr_t value);

// The number in such a text; 0, which names nothing, for any other text. Upper-case digits and a missing "0x" are read
// as well.
std::uintptr_t TextToPointer(std::string_view text);

}  // namespace mivo

#endif  // MIVO_BASE_POINTER_TEXT_H_
