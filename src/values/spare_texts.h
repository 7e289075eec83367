// Texts of values, used again on the thread that has destroyed them: most values live for one call.
//
// Each is a string made with new, and may be deleted by anybody. The spare ones of a thread are bounded, in number and
// length, and go with it. Under a checker of memory there are none, for it would not see who uses what is gone.
#ifndef MIVO_SRC_VALUES_SPARE_TEXTS_H_
#define MIVO_SRC_VALUES_SPARE_TEXTS_H_

#include <cstddef>
#include <string>

namespace mivo {

std::string* NewText(const char* bytes, std::size_t size);
void DeleteText(std::string* text);

}  // namespace mivo

#endif  // MIVO_SRC_VALUES_SPARE_TEXTS_H_
