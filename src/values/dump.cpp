#include <cstddef>
#include <ios>
#include <iostream>
#include <ostream>
#include <string>

#include <mivo/params.h>

namespace {

constexpr std::size_t kRuleLength = 61;
constexpr const char* kStreamWord = "二进制";

// The dump's format is the stream's default, whatever the host program has set it to, and is given back afterwards.
class DefaultFormat {
 public:
  explicit DefaultFormat(std::ostream& out)
      : out_(out), flags_(out.flags(std::ios_base::dec | std::ios_base::skipws)), precision_(out.precision(6)) {
    out_.width(0);
  }
  ~DefaultFormat() {
    out_.flags(flags_);
    out_.precision(precision_);
  }
  DefaultFormat(const DefaultFormat&) = delete;
  DefaultFormat& operator=(const DefaultFormat&) = delete;

 private:
  std::ostream& out_;
  const std::ios_base::fmtflags flags_;
  const std::streamsize precision_;
};

long StreamLength(const MIVOValue& value) {
  long length = 0;
  value.GetStream(length);
  return length;
}

// Returns false, with nothing printed, for a value that is no scalar.
bool PrintScalar(std::ostream& out, const char* indent, const MIVOValue& value) {
  if (value.IsInt()) {
    out << indent << "int: " << value.GetInt();
  } else if (value.IsBool()) {
    out << indent << "bool: " << value.GetBool();
  } else if (value.IsDouble()) {
    out << indent << "double: " << value.GetDouble();
  } else if (value.IsString()) {
    out << indent << "string: " << value.GetString();
  } else if (value.IsStream()) {
    out << indent << "stream: " << kStreamWord << " " << StreamLength(value);
  } else {
    return false;
  }
  out << std::endl;
  return true;
}

void PrintPositional(std::ostream& out, MIVOValue& value) {
  if (PrintScalar(out, "  ", value) || !value.IsList()) return;
  out << "  list begin: " << value.GetList()->size() << "-----" << std::endl;
  for (const MIVOValue* element : *value.GetList())
    PrintScalar(out, "       ", *element);
  out << "  list end-----" << std::endl;
}

// Leaves the line open when there is nothing to print after the key: an entry may have lost its value.
void PrintKeyed(std::ostream& out, const char* key, const MIVOValue* value) {
  out << "   " << key << " - ";
  if (value == nullptr) return;
  if (value->IsStream()) {
    out << "stream:  " << StreamLength(*value) << std::endl;
  } else {
    PrintScalar(out, "", *value);
  }
}

void PrintHeading(std::ostream& out, const char* name, int count) {
  out << "\n" << name << " " << count << std::string(kRuleLength, '-') << std::endl;
}

}  // namespace

void MIVOParams::print() {
  std::ostream& out = std::cout;
  const DefaultFormat format(out);
  PrintHeading(out, "params", ParamsSize());
  for (MIVOValue* value : *values_)
    PrintPositional(out, *value);
  PrintHeading(out, "maps", MapSize());
  for (const auto& entry : *GetMapPtr())
    PrintKeyed(out, entry.first, entry.second);
  out << std::endl;
}
