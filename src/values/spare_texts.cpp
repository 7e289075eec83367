#include "values/spare_texts.h"

#include <memory>

#if defined(__SANITIZE_ADDRESS__)
#define MIVO_NO_SPARE_TEXTS
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MIVO_NO_SPARE_TEXTS
#endif
#endif

namespace mivo {

#ifdef MIVO_NO_SPARE_TEXTS

std::string* NewText(const char* bytes, std::size_t size) {
  return new std::string(bytes, size);
}

void DeleteText(std::string* text) {
  delete text;
}

#else

namespace {

constexpr std::size_t kMostSpare = 128;
constexpr std::size_t kLongestSpare = 64;

struct SpareTexts {
  ~SpareTexts();
  std::size_t count = 0;
  std::string* texts[kMostSpare];
};

// Values are destroyed on a thread up to its very end, when its other objects are gone: so what is asked each time has
// no end of its own.
thread_local SpareTexts* spare = nullptr;
thread_local bool is_over = false;

SpareTexts::~SpareTexts() {
  is_over = true;
  spare = nullptr;
  while (count != 0)
    delete texts[--count];
}

SpareTexts* MakeSpare() {
  if (is_over) return nullptr;
  thread_local SpareTexts texts;
  return spare = &texts;
}

}  // namespace

std::string* NewText(const char* bytes, std::size_t size) {
  SpareTexts* const texts = spare;
  if (texts == nullptr || texts->count == 0 || size > kLongestSpare) return new std::string(bytes, size);
  std::unique_ptr<std::string> text(texts->texts[--texts->count]);
  text->assign(bytes, size);
  return text.release();
}

void DeleteText(std::string* text) {
  if (text == nullptr) return;
  SpareTexts* const texts = spare != nullptr ? spare : MakeSpare();
  if (texts == nullptr || texts->count == kMostSpare || text->capacity() > kLongestSpare) {
    delete text;
  } else {
    texts->texts[texts->count++] = text;
  }
}

#endif

}  // namespace mivo
