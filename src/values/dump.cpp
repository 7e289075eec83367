#include <cstddef>
#include <ios>
#include <iostream>
#include <locale>
#include <ostream>
#include <sstream>
#include <string>

#include <mivo/params.h>

#include "base/mutex.h"

namespace {

constexpr std::size_t kRuleLength = 61;
constexpr const char* kStreamWord = "二进制";

// Two dumps at once must neither mix their lines nor race for what the stream keeps.
mivo::Mutex output_mutex;

// A line's end; the text is flushed once, as a whole.
constexpr char kEnd = '\n';

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
  out << kEnd;
  return true;
}

void PrintPositional(std::ostream& out, MIVOValue& value) {
  if (PrintScalar(out, "  ", value) || !value.IsList()) return;
  out << "  list begin: " << value.GetList()->size() << "-----" << kEnd;
  for (const MIVOValue* element : *value.GetList())
    PrintScalar(out, "       ", *element);
  out << "  list end-----" << kEnd;
}

// Leaves the line open when there is nothing to print after the key: an entry may have lost its value.
void PrintKeyed(std::ostream& out, const char* key, const MIVOValue* value) {
  out << "   " << key << " - ";
  if (value == nullptr) return;
  if (value->IsStream()) {
    out << "stream:  " << StreamLength(*value) << kEnd;
  } else {
    PrintScalar(out, "", *value);
  }
}

void PrintHeading(std::ostream& out, const char* name, int count) {
  out << "\n" << name << " " << count << std::string(kRuleLength, '-') << kEnd;
}

}  // namespace

// The text is made in a stream of its own, in the default format, whatever format or locale the host program has set
// for its output; that belongs to the program and is not touched.
void MIVOParams::print() {
  std::ostringstream out;
  out.imbue(std::locale::classic());
  PrintHeading(out, "params", ParamsSize());
  for (int index = 0; index < ParamsSize(); ++index)
    PrintPositional(out, *GetValue(index));
  PrintHeading(out, "maps", MapSize());
  for (const auto& entry : *GetMapPtr())
    PrintKeyed(out, entry.first, entry.second);
  out << kEnd;

  const std::string text = out.str();
  const mivo::MutexLock lock(output_mutex);
  std::cout.write(text.data(), static_cast<std::streamsize>(text.size()));
  std::cout.flush();
  // A text that is null ends the dump where it stands and is the stream's failure, as if it had been written there.
  if (out.fail()) std::cout.setstate(std::ios_base::badbit);
}
