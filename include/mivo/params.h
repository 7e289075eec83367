#ifndef MIVO_PARAMS_H_
#define MIVO_PARAMS_H_

#include <mivo/export.h>
#include <mivo/value.h>

#include <map>
#include <string>
#include <vector>

class MIVO_EXPORT MIVOParams {
 public:
  MIVOParams();
  MIVOParams(const MIVOParams& source);
  MIVOParams& operator=(const MIVOParams&) = delete;
  ~MIVOParams();
  void Clear();

  void AddInt(int value);
  void AddBool(bool value);
  void AddDouble(double value);
  void AddString(const char* text);
  void AddStream(const char* bytes, long length);
  void AddKeyValueInt(const char* key, int value);
  void AddKeyValueBool(const char* key, bool value);
  void AddKeyValueDouble(const char* key, double value);
  void AddKeyValueString(const char* key, const char* text);
  void AddKeyValueStream(const char* key, const char* bytes, long length);
  ListParams* CreateListParams();
  void AddList(ListParams* list);

  std::string* GetParamas();
  const char* GetParamasPtr() const;
  int GetParamasSize() const;
  int Size() const;
  void GetBuffer();
  bool IsGetBuffer() const;

  int ParamsSize() const;
  int MapSize() const;
  MIVOValue* GetValue(int index) const;
  MIVOValue* GetMap(const char* key) const;
  std::map<const char*, MIVOValue*>* GetMapPtr();
  bool Parser(const char* bytes, int length);
  bool ToParams();
  void print();

 private:
  bool buffer_taken_;
  std::string* buffer_;
  std::vector<MIVOValue*>* values_;
  std::map<std::string, MIVOValue*>* keyed_values_;
  std::map<const char*, MIVOValue*>* keyed_values_by_pointer_;
};

#endif  // MIVO_PARAMS_H_
