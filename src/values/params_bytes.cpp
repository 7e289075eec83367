#include "values/params_bytes.h"

#include <utility>

#include "values/encoding_buffer.h"
#include "values/read_face.h"

namespace mivo {

std::string_view ParamsBytes::Of(const MIVOParams& params) {
  return params.buffer_ == nullptr ? std::string_view() : params.buffer_->view();
}

std::string ParamsBytes::Take(MIVOParams& params) {
  if (params.buffer_ == nullptr) return std::string();
  if (params.read_face_ != nullptr) params.read_face_->BeforeTheBufferChanges();
  return params.buffer_->Take();
}

bool ParamsBytes::Decode(MIVOParams& params, std::string bytes) {
  Buffer(params).Adopt(std::move(bytes));
  return DecodeBuffer(params);
}

bool ParamsBytes::DecodeBorrowed(MIVOParams& params, std::string_view bytes) {
  Buffer(params).Borrow(bytes);
  return DecodeBuffer(params);
}

EncodingBuffer& ParamsBytes::Buffer(MIVOParams& params) {
  if (params.buffer_ == nullptr) params.buffer_ = EncodingBuffer::New();
  return *params.buffer_;
}

bool ParamsBytes::DecodeBuffer(MIVOParams& params) {
  DropReadFace(params);
  const std::string_view bytes = Of(params);
  if (bytes.empty()) return true;
  const bool is_borrowed = params.buffer_->is_borrowed();
  params.read_face_ = new ReadFace(bytes, is_borrowed ? ReadFace::Bytes::kSomebodys : ReadFace::Bytes::kTheSets);
  // Whoever has its pointer may change the buffer without another word.
  if (params.buffer_->is_shown()) params.read_face_->BeforeTheBufferChanges();
  return params.read_face_->is_well_formed();
}

void ParamsBytes::DropReadFace(MIVOParams& params) {
  if (params.values_by_key_ != nullptr) params.values_by_key_->clear();
  delete[] std::exchange(params.key_texts_, nullptr);
  if (params.read_face_ != nullptr) std::exchange(params.read_face_, nullptr)->Release();
}

}  // namespace mivo
