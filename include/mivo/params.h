#ifndef MIVO_PARAMS_H_
#define MIVO_PARAMS_H_

#include <mivo/export.h>
#include <mivo/value.h>

#include <map>
#include <string>
#include <vector>

namespace mivo {
class EncodingBuffer;
class ParamsBytes;
class ReadFace;
}  // namespace mivo

// The arguments or the reply of a call. A set has two faces that are kept apart: the add operations write an encoding
// into a buffer, and that is what is sent; the getters show what was decoded, by Parser from received bytes or by
// ToParams from the set's own buffer. A set that was built with add operations shows nothing until ToParams; adding to
// a decoded set changes the buffer only.
//
// Threads: none of its own. One object is used by one thread at a time; the const operations may run side by side.
// Ownership: the set owns its buffer and every decoded value. Pointers from GetValue and GetMap hold until Clear, the
// next decoding, or the end of the set. Units: all sizes and lengths are bytes. Texts are bytes without an encoding of
// their own. A value's object is made when it is first asked for. Errors: decoding returns false at the first fault;
// otherwise only std::bad_alloc when memory runs out, and an add operation that throws it has added nothing. Keys and C
// strings that are added must not be null.
class MIVO_EXPORT MIVOParams {
 public:
  MIVOParams();
  // The buffer is copied, the decoded values are shared: what is done to one of them is seen in both sets, and they
  // hold until neither set shows them. Copy before decoding, and both are independent.
  MIVOParams(const MIVOParams& source);
  MIVOParams& operator=(const MIVOParams&) = delete;
  ~MIVOParams();

  // Empties both faces. The flag of GetBuffer stays.
  void Clear();

  // Positional values, in the order of the calls.
  void AddInt(int value);
  void AddBool(bool value);
  void AddDouble(double value);
  // Up to the NUL byte.
  void AddString(const char* text);
  // `length` bytes, NUL bytes included; a negative length counts as 0.
  void AddStream(const char* bytes, long length);

  // Values under a key. A key may be added twice: both are sent, and the later one is found.
  void AddKeyValueInt(const char* key, int value);
  void AddKeyValueBool(const char* key, bool value);
  void AddKeyValueDouble(const char* key, double value);
  void AddKeyValueString(const char* key, const char* text);
  void AddKeyValueStream(const char* key, const char* bytes, long length);

  // A new empty builder, the caller's until it is handed to AddList. Does not touch the set.
  ListParams* CreateListParams();
  // Encodes the list as one positional value. Takes `list` and destroys it; the pointer is dangling afterwards.
  void AddList(ListParams* list);

  // The live buffer, never null; the same until the end of the set. What was decoded stays as it is, whatever is done
  // to the buffer.
  std::string* GetParamas();
  // The buffer's first byte; holds until the buffer changes.
  const char* GetParamasPtr() const;
  // The buffer's size in bytes, INT_MAX for any larger one; both are the same.
  int GetParamasSize() const;
  int Size() const;
  // Only sets the flag that IsGetBuffer shows.
  void GetBuffer();
  bool IsGetBuffer() const;

  // How many positional values, and how many keyed entries, were decoded.
  int ParamsSize() const;
  int MapSize() const;
  // Null where there is no such position, for negative ones too.
  MIVOValue* GetValue(int index) const;
  // Null where there is no such key, and for an entry that the bytes named again without giving it a value. Null also
  // for a null key.
  MIVOValue* GetMap(const char* key) const;
  // The keyed entries once more, ordered by the addresses of their keys; meant for walking through, not for looking up.
  // Built when it is empty, and then left as it is until Clear or the next decoding. Values may be null, as above.
  std::map<const char*, MIVOValue*>* GetMapPtr();

  // Replaces the whole set with `length` bytes, which are copied, and what they decode to. A length below 1 empties the
  // set and is no fault. The bytes may be the set's own, or a stream among its values. Any bytes are safe.
  //
  // On false, what was decoded before the fault is kept, and the buffer holds all the bytes. An encoding decodes from
  // its first byte only: neither a part of one, nor one behind another, is an encoding.
  bool Parser(const char* bytes, int length);
  // Decodes the buffer as it is.
  bool ToParams();

  // Writes the decoded values to std::cout in a form for people: no undecoded set shows anything, and no stream its
  // bytes.
  void print();

 private:
  friend class mivo::ParamsBytes;
  bool buffer_taken_;
  // Each is made when it is first needed.
  mivo::EncodingBuffer* buffer_;
  mivo::ReadFace* read_face_;
  // What GetMapPtr shows; its keys lie one behind the other in key_texts_.
  std::map<const char*, MIVOValue*>* values_by_key_;
  char* key_texts_;
};

#endif  // MIVO_PARAMS_H_
