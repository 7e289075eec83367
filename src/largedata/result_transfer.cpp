#include "largedata/result_transfer.h"

#include <mivo/params.h>

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

#include "base/spare_memory.h"
#include "largedata/slice.h"
#include "largedata/slice_sender.h"
#include "transport/builtin_keys.h"
#include "transport/connection.h"
#include "transport/envelope.h"

namespace mivo {

namespace {
constexpr int kSliceTimeoutMs = 500;
}  // namespace

class ResultTransfer::SliceWaiter : public Waiter {
 public:
  explicit SliceWaiter(std::shared_ptr<ResultTransfer> transfer)
      : Waiter(transfer->connection_->id(), transfer->key_, kSliceTimeoutMs, Of::kLibrary),
        transfer_(std::move(transfer)) {}

 private:
  void OnWoken(std::optional<std::string> reply) override {
    const std::unique_ptr<SliceWaiter> self(this);
    transfer_->Answered(reply.has_value());
  }

  const std::shared_ptr<ResultTransfer> transfer_;
};

ResultTransfer::ResultTransfer(std::shared_ptr<Connection> connection, int key, std::vector<std::string> wholes,
                               Begin begin, std::function<void()> done)
    : connection_(std::move(connection)),
      key_(key),
      wholes_(std::move(wholes)),
      begin_(std::move(begin)),
      done_(std::move(done)) {}

ResultTransfer::~ResultTransfer() {
  for (std::string& whole : wholes_)
    GiveSpareString(std::move(whole));
}

void ResultTransfer::Start() {
  slice_size_ = SliceSizeOfTransfer();
  SendNext();
}

void ResultTransfer::SendNext() {
  if (whole_ == wholes_.size()) {
    done_();
    return;
  }
  const std::string& whole = wholes_[whole_];
  const std::string_view bytes = std::string_view(whole).substr(offset_, slice_size_);
  offset_ += bytes.size();
  if (offset_ == whole.size()) {
    ++whole_;
    offset_ = 0;
  }
  MIVOParams slice;
  WriteSlice({key_, static_cast<int>(whole.size()), bytes}, &slice);
  auto waiter = std::make_unique<SliceWaiter>(shared_from_this());
  Frame request(EncodeRequest(kSliceMethod, key_, &slice, waiter->token()));
  // Listed, it deletes itself when it is woken: that may be before `begin_` returns, and another thread goes on then.
  SliceWaiter* const listed = waiter.release();
  bool is_listed = false;
  try {
    is_listed = begin_(*connection_, *listed, std::move(request));
  } catch (...) {
    delete listed;
    throw;
  }
  if (!is_listed) delete listed;
}

void ResultTransfer::Answered(bool has_answer) {
  has_answer_ = has_answer_ || has_answer;
  if (!has_answer_) whole_ = wholes_.size();
  if (connection_->is_closed()) return;
  try {
    SendNext();
  } catch (const std::bad_alloc&) {
    connection_->EndForWantOfMemory();
  }
}

}  // namespace mivo
