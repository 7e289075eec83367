#ifndef MIVO_VALUE_H_
#define MIVO_VALUE_H_

#include <mivo/export.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

class MIVO_EXPORT MIVOValue {
 public:
  enum Type { None = 0, Bool = 1, Int = 2, Double = 3, String = 4, Stream = 5, List = 6, ListMap = 7 };

  MIVOValue();
  MIVOValue(Type type);
  MIVOValue(int value);
  MIVOValue(bool value);
  MIVOValue(double value);
  MIVOValue(const char* bytes, long length, Type type);
  MIVOValue(const MIVOValue& source);
  MIVOValue& operator=(const MIVOValue& source);
  ~MIVOValue();

  void clear();
  int GetInt() const;
  bool GetBool() const;
  double GetDouble() const;
  const char* GetString() const;
  const char* GetStream(long& length) const;
  std::vector<MIVOValue*>* GetList();
  bool IsBool() const;
  bool IsInt() const;
  bool IsDouble() const;
  bool IsString() const;
  bool IsStream() const;
  bool IsList() const;
  void AddListBool(bool value);
  void AddListInt(int value);
  void AddListDouble(double value);
  void AddListString(const char* bytes, long length);
  void AddListStream(const char* bytes, long length);
  void AddListMapBool(const char* key, bool value);
  void AddListMapInt(const char* key, int value);
  void AddListMapDouble(const char* key, double value);
  void AddListMapString(const char* key, const char* bytes, long length);
  void AddListMapStream(const char* key, const char* bytes, long length);

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

class MIVO_EXPORT ListParams {
 public:
  ListParams();
  ~ListParams();
  ListParams(const ListParams&) = delete;
  ListParams& operator=(const ListParams&) = delete;

  void AddBool(bool value);
  void AddInt(int value);
  void AddDouble(double value);
  void AddString(const char* bytes, long length);
  void AddStream(const char* bytes, long length);

 private:
  friend class MIVOParams;
  std::vector<MIVOValue*> elements_;
};

#endif  // MIVO_VALUE_H_
