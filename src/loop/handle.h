// One libuv handle and its owner.
#ifndef MIVO_LOOP_HANDLE_H_
#define MIVO_LOOP_HANDLE_H_

#include <uv.h>

#include <cassert>
#include <memory>
#include <utility>

namespace mivo {

// libuv may use a handle until its close callback has run, which is after the owner has gone. So the handle lives in a
// block of its own: the owner starts the close, the callback frees the block. `data` points at the owner until then.
//
// Loop thread, as everything that touches a handle.
template <class T>
class Handle {
 public:
  Handle() = default;
  ~Handle() { Close(); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  // Runs `init` (a uv_*_init call) on a fresh block; keeps it only if that succeeded. Returns libuv's result.
  template <class Init>
  int Open(void* owner, Init init) {
    assert(block_ == nullptr);
    auto block = std::make_unique<T>();
    const int status = init(block.get());
    if (status < 0) return status;
    AsHandle(block.get())->data = owner;
    block_ = block.release();
    return 0;
  }

  // Starts the close. Callbacks of operations still under way come with an error and with `data` null. May be repeated.
  void Close() {
    T* block = std::exchange(block_, nullptr);
    if (block == nullptr) return;
    AsHandle(block)->data = nullptr;
    uv_close(AsHandle(block), [](uv_handle_t* handle) { delete reinterpret_cast<T*>(handle); });
  }

  T* get() const { return block_; }
  explicit operator bool() const { return block_ != nullptr; }

 private:
  static uv_handle_t* AsHandle(T* block) { return reinterpret_cast<uv_handle_t*>(block); }

  T* block_ = nullptr;
};

}  // namespace mivo

#endif  // MIVO_LOOP_HANDLE_H_
