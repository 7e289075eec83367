#ifndef MIVO_VALUE_H_
#define MIVO_VALUE_H_

#include <mivo/export.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// One value of any of the system's types. A list holds values, a list map holds them under string keys.
//
// Threads: none of its own. One object is used by one thread at a time; reading it from several is safe while none
// writes. Ownership: a value owns its text, the elements of `list` and the values of `listMap`, and destroys them in
// clear() and at its end, provided `type` says that it is a text, a list or a list map. Elements put in by hand must
// come from new. Lifetime: a copy of a list or list map is shallow: copy and source show the same elements, and the
// first of the two to be cleared, assigned or destroyed destroys them. Let only one of them go that way, or empty the
// other's `list` or `listMap` first. Errors: std::bad_alloc when memory runs out, and the std::logic_error named below.
// Nothing else is reported.
class MIVO_EXPORT MIVOValue {
 public:
  enum Type { None = 0, Bool = 1, Int = 2, Double = 3, String = 4, Stream = 5, List = 6, ListMap = 7 };

  MIVOValue();
  // For List and ListMap, to be filled with the add operations below.
  MIVOValue(Type type);
  MIVOValue(int value);
  // A pointer is taken for a bool, a literal text too: use the constructor with a length.
  MIVOValue(bool value);
  MIVOValue(double value);
  // A String or Stream of its own copy of `length` bytes, NUL bytes included. A negative length counts as 0. Throws
  // std::logic_error when `bytes` is null and `length` is not 0.
  MIVOValue(const char* bytes, long length, Type type);
  MIVOValue(const MIVOValue& source);
  MIVOValue& operator=(const MIVOValue& source);
  ~MIVOValue();

  // Destroys what the value owns and makes it None.
  void clear();

  // The getters do not look at the type: test it first. A text getter on a number reads memory that is not a text.
  int GetInt() const;
  bool GetBool() const;
  double GetDouble() const;
  // Both end with a NUL byte and live until the value is changed or destroyed. They serve strings and streams alike;
  // null when the value was made with a text's type and no text.
  const char* GetString() const;
  const char* GetStream(long& length) const;
  std::vector<MIVOValue*>* GetList();

  // A list map answers no to all of them; compare `type`.
  bool IsBool() const;
  bool IsInt() const;
  bool IsDouble() const;
  bool IsString() const;
  bool IsStream() const;
  bool IsList() const;

  // Append a new element to `list`. They do not make this value a list: start with MIVOValue(List).
  void AddListBool(bool value);
  void AddListInt(int value);
  void AddListDouble(double value);
  void AddListString(const char* bytes, long length);
  void AddListStream(const char* bytes, long length);

  // Store a new element in `listMap`; the newest under a key wins. The element it replaces is not destroyed, because a
  // copy of this value may still show it: it is up to the caller, who can take it from `listMap` before.
  void AddListMapBool(const char* key, bool value);
  void AddListMapInt(const char* key, int value);
  void AddListMapDouble(const char* key, double value);
  void AddListMapString(const char* key, const char* bytes, long length);
  void AddListMapStream(const char* key, const char* bytes, long length);

  // Which member means something is decided by `type`. `text` is made with new.
  union {
    bool boolean;
    std::int32_t integer;
    double real;
    std::string* text;
  } data;
  Type type;
  std::vector<MIVOValue*> list;
  std::map<std::string, MIVOValue*> listMap;
};

// Collects the elements of a list for MIVOParams::AddList. Made by MIVOParams::CreateListParams.
//
// Threads: one at a time.
// Ownership: owns its elements, which are copies of what was added.
// Lifetime: AddList destroys it; without AddList the caller deletes it.
class MIVO_EXPORT ListParams {
 public:
  ListParams();
  ~ListParams();
  ListParams(const ListParams&) = delete;
  ListParams& operator=(const ListParams&) = delete;

  void AddBool(bool value);
  void AddInt(int value);
  void AddDouble(double value);
  // `length` bytes, as for the text constructor of MIVOValue. Of a string, AddList encodes what stands before its first
  // NUL byte; of a stream, all.
  void AddString(const char* bytes, long length);
  void AddStream(const char* bytes, long length);

 private:
  friend class MIVOParams;
  std::vector<MIVOValue*> elements_;
};

#endif  // MIVO_VALUE_H_
