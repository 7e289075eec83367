// The write face of a set: the bytes that its add operations append.
//
// Nobody else sees the bytes' string until Text gives it away. Until then it is kept longer than the encoding, so that
// a record is written with a few stores; from then on it is exactly the encoding, for its holder may read and change
// it at any time. An encoding may also lie in memory of somebody else's, until it is added to.
//
// Threads: const operations may run side by side.
#ifndef MIVO_SRC_VALUES_ENCODING_BUFFER_H_
#define MIVO_SRC_VALUES_ENCODING_BUFFER_H_

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>

namespace mivo {

class EncodingBuffer {
 public:
  // Buffers with their memory are used again on the thread that has done with them.
  static EncodingBuffer* New();
  static void Delete(EncodingBuffer* buffer);

  EncodingBuffer() = default;
  EncodingBuffer(const EncodingBuffer&) = delete;
  EncodingBuffer& operator=(const EncodingBuffer&) = delete;

  // The encoding, with a NUL byte behind it unless it is borrowed. Holds until something is changed.
  std::string_view view() const {
    if (borrowed_.data() != nullptr) return borrowed_;
    return std::string_view(bytes_.data(), shown_ ? bytes_.size() : size_);
  }
  bool is_shown() const { return shown_; }
  bool is_borrowed() const { return borrowed_.data() != nullptr; }

  // Room for a record of `size` bytes at the end, which Wrote makes part of the encoding. Null when there is none, or
  // the string is shown: Reserve and Open then, or append to Text.
  char* Room(std::size_t size) { return open_ - size_ >= size ? bytes_.data() + size_ : nullptr; }
  // `at` is what Room has given, `end` what end says.
  void Wrote(char* at, std::size_t end, std::size_t size) {
    size_ = end + size;
    at[size] = '\0';
  }
  // Where that record will stand.
  std::size_t end() const { return size_; }

  // Makes room for `size` more bytes, growing geometrically. Not for a shown string. Views among `sources` that show
  // this encoding are made to show it where it goes. The string that held it is given to `before`, should it have to
  // move: there may still be views of that.
  void Reserve(std::size_t size, std::initializer_list<std::string_view*> sources, std::string& before);
  // After Reserve: Room has that much.
  void Open(std::size_t size);
  // After Reserve, for what is long: appends at once, without Room.
  void Append(std::string_view bytes);

  // The string, to be kept in step with the encoding from now on.
  std::string& Text();

  void Clear();
  void Assign(std::string_view bytes);  // `bytes` may be its own
  void Adopt(std::string bytes);
  // `bytes` must outlive this, or the next Clear, Assign, Adopt or Take.
  void Borrow(std::string_view bytes);
  // The encoding; this is empty afterwards.
  std::string Take();

 private:
  void Own();
  void Trim();
  void Measure();

  bool shown_ = false;
  // Of the encoding, and of the string with what is taken into use behind it. Both are 0 while that is not the buffer's
  // alone: then the size is that of the string, or of what is borrowed.
  std::size_t size_ = 0;
  std::size_t open_ = 0;
  std::string bytes_;
  std::string_view borrowed_;  // with data where the encoding is borrowed; bytes_ is empty then
};

}  // namespace mivo

#endif  // MIVO_SRC_VALUES_ENCODING_BUFFER_H_
