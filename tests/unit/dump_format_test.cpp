#include <gtest/gtest.h>
#include <mivo/params.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <iomanip>
#include <iostream>
#include <locale>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/golden.h"

namespace {

using mivo_test::FromHex;

// Takes over what std::cout writes, for the time of its life.
class CapturedOutput {
 public:
  CapturedOutput() : former_(std::cout.rdbuf(text_.rdbuf())) {}
  ~CapturedOutput() {
    std::cout.rdbuf(former_);
    std::cout.clear();
  }
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;
  std::string text() const { return text_.str(); }

 private:
  std::ostringstream text_;
  std::streambuf* const former_;
};

std::string Printed(MIVOParams& params) {
  const CapturedOutput output;
  params.print();
  EXPECT_TRUE(std::cout.good());
  return output.text();
}

const std::string kRule(61, '-');

std::string Dump(int positional, const std::string& values, int keyed, const std::string& maps) {
  return "\nparams " + std::to_string(positional) + kRule + "\n" + values + "\nmaps " + std::to_string(keyed) + kRule +
         "\n" + maps + "\n";
}

TEST(Dump, ShowsAnEmptySetAsTwoHeadings) {
  MIVOParams params;
  EXPECT_EQ(Printed(params), Dump(0, "", 0, ""));
  EXPECT_EQ(Printed(params),
            "\nparams 0-------------------------------------------------------------\n"
            "\nmaps 0-------------------------------------------------------------\n\n");
}

TEST(Dump, ShowsPositionalAndKeyedValues) {
  MIVOParams params;
  params.AddInt(5);
  params.AddKeyValueString("retval", "ok");
  params.ToParams();
  EXPECT_EQ(Printed(params),
            "\nparams 1-------------------------------------------------------------\n"
            "  int: 5\n"
            "\nmaps 1-------------------------------------------------------------\n"
            "   retval - string: ok\n\n");
}

TEST(Dump, ShowsNothingOfASetThatWasNotDecoded) {
  MIVOParams params;
  params.AddInt(5);
  params.AddKeyValueInt("k", 1);
  EXPECT_EQ(Printed(params), Dump(0, "", 0, ""));
}

TEST(Dump, ShowsEveryPositionalScalar) {
  MIVOParams params;
  params.AddInt(-2147483647 - 1);
  params.AddBool(true);
  params.AddBool(false);
  params.AddDouble(0.5);
  params.AddDouble(1e10);
  params.AddDouble(1234567.0);
  params.AddString("text");
  params.AddStream("ab\0cd", 5);
  params.ToParams();
  EXPECT_EQ(Printed(params), Dump(8,
                                  "  int: -2147483648\n"
                                  "  bool: 1\n"
                                  "  bool: 0\n"
                                  "  double: 0.5\n"
                                  "  double: 1e+10\n"
                                  "  double: 1.23457e+06\n"
                                  "  string: text\n"
                                  "  stream: \xE4\xBA\x8C\xE8\xBF\x9B\xE5\x88\xB6 5\n",
                                  0, ""));
}

TEST(Dump, ShowsAListWithItsElements) {
  MIVOParams params;
  ListParams* const list = params.CreateListParams();
  list->AddInt(1);
  list->AddBool(true);
  list->AddDouble(0.5);
  list->AddString("x", 1);
  list->AddStream("yz", 2);
  params.AddList(list);
  params.AddList(params.CreateListParams());
  params.ToParams();
  EXPECT_EQ(Printed(params), Dump(2,
                                  "  list begin: 5-----\n"
                                  "       int: 1\n"
                                  "       bool: 1\n"
                                  "       double: 0.5\n"
                                  "       string: x\n"
                                  "       stream: \xE4\xBA\x8C\xE8\xBF\x9B\xE5\x88\xB6 2\n"
                                  "  list end-----\n"
                                  "  list begin: 0-----\n"
                                  "  list end-----\n",
                                  0, ""));
}

TEST(Dump, PassesOverListMapsAndValuesWithoutType) {
  MIVOParams params;
  *params.GetParamas() = mivo_test::Golden("list_map");
  ASSERT_TRUE(params.ToParams());
  EXPECT_EQ(Printed(params), Dump(1, "", 0, ""));
  params.GetValue(0)->clear();
  EXPECT_EQ(Printed(params), Dump(1, "", 0, ""));
}

TEST(Dump, PassesOverListElementsThatAreNoScalars) {
  MIVOParams params;
  ListParams* const list = params.CreateListParams();
  list->AddInt(1);
  params.AddList(list);
  params.ToParams();
  params.GetValue(0)->GetList()->push_back(new MIVOValue(MIVOValue::List));
  EXPECT_EQ(Printed(params), Dump(1, "  list begin: 2-----\n       int: 1\n  list end-----\n", 0, ""));
}

TEST(Dump, ShowsEveryKeyedScalarOnItsOwnLine) {
  const auto printed_pair = [](const auto& add) {
    MIVOParams params;
    add(params);
    params.ToParams();
    return Printed(params);
  };
  EXPECT_EQ(printed_pair([](MIVOParams& params) { params.AddKeyValueInt("k", 1); }), Dump(0, "", 1, "   k - int: 1\n"));
  EXPECT_EQ(printed_pair([](MIVOParams& params) { params.AddKeyValueBool("k", true); }),
            Dump(0, "", 1, "   k - bool: 1\n"));
  EXPECT_EQ(printed_pair([](MIVOParams& params) { params.AddKeyValueDouble("k", 0.5); }),
            Dump(0, "", 1, "   k - double: 0.5\n"));
  EXPECT_EQ(printed_pair([](MIVOParams& params) { params.AddKeyValueString("k", "x"); }),
            Dump(0, "", 1, "   k - string: x\n"));
  EXPECT_EQ(printed_pair([](MIVOParams& params) { params.AddKeyValueStream("k", "a\0b", 3); }),
            Dump(0, "", 1, "   k - stream:  3\n"));
}

TEST(Dump, ShowsEveryKeyOnceInTheOrderOfTheirPointers) {
  MIVOParams params;
  for (int i = 0; i < 20; ++i) {
    const std::string key = "key" + std::to_string(i);
    params.AddKeyValueInt(key.c_str(), i);
  }
  params.ToParams();
  std::string maps;
  for (const auto& entry : *params.GetMapPtr()) {
    maps += "   " + std::string(entry.first) + " - int: " + std::to_string(entry.second->GetInt()) + "\n";
  }
  EXPECT_EQ(Printed(params), Dump(0, "", 20, maps));
  for (int i = 0; i < 20; ++i)
    EXPECT_NE(maps.find(" key" + std::to_string(i) + " - "), std::string::npos);
}

TEST(Dump, LeavesTheLineOfALostValueOpen) {
  MIVOParams params;
  *params.GetParamas() = FromHex(
      "05 03 01 00 00 00 6B 07 00 00 00  00 01 00 00 00 10 00 00 00"
      "05 03 01 00 00 00 6B 1B 00 00 00  06 00 00 00 00");
  ASSERT_TRUE(params.ToParams());
  EXPECT_EQ(Printed(params), Dump(1, "  list begin: 0-----\n  list end-----\n", 1, "   k - "));
}

TEST(Dump, LeavesTheLineOfAKeyedListOpen) {
  MIVOParams params;
  params.AddKeyValueInt("k", 1);
  params.ToParams();
  for (const MIVOValue::Type type : {MIVOValue::List, MIVOValue::ListMap, MIVOValue::None}) {
    *params.GetMap("k") = MIVOValue(type);
    EXPECT_EQ(Printed(params), Dump(0, "", 1, "   k - "));
  }
}

TEST(Dump, StopsTheStreamAtATextThatIsNull) {
  MIVOParams params;
  params.AddString("x");
  params.ToParams();
  *params.GetValue(0) = MIVOValue(MIVOValue::String);
  const CapturedOutput output;
  params.print();
  EXPECT_FALSE(std::cout.good());
  EXPECT_EQ(output.text(), "\nparams 1" + kRule + "\n  string: ");
}

TEST(Dump, BuildsTheMapOfPointers) {
  MIVOParams params;
  params.AddKeyValueInt("k", 1);
  params.ToParams();
  Printed(params);
  auto* const pointers = params.GetMapPtr();
  EXPECT_EQ(pointers->size(), 1u);
  // Not refreshed while it holds something: the dump shows what it finds there.
  pointers->clear();
  pointers->emplace("other", params.GetMap("k"));
  EXPECT_EQ(Printed(params), Dump(0, "", 1, "   other - int: 1\n"));
  pointers->clear();
}

TEST(Dump, UsesTheDefaultFormatAndGivesTheProgramsFormatBack) {
  MIVOParams params;
  params.AddInt(255);
  params.AddBool(true);
  params.AddDouble(1234567.0);
  params.ToParams();
  const std::ios_base::fmtflags flags = std::cout.flags();
  const std::streamsize precision = std::cout.precision();
  std::cout << std::hex << std::boolalpha << std::fixed << std::setprecision(2);
  const std::ios_base::fmtflags own_flags = std::cout.flags();
  EXPECT_EQ(Printed(params), Dump(3, "  int: 255\n  bool: 1\n  double: 1.23457e+06\n", 0, ""));
  EXPECT_EQ(std::cout.flags(), own_flags);
  EXPECT_EQ(std::cout.precision(), 2);
  std::cout.flags(flags);
  std::cout.precision(precision);
}

TEST(Dump, IsTheSameInALocaleThatGroupsDigits) {
  struct Grouping : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };
  MIVOParams params;
  params.AddInt(1234567);
  params.AddDouble(0.5);
  params.ToParams();
  const std::locale own(std::locale::classic(), new Grouping);
  const std::locale former = std::cout.imbue(own);
  const std::locale former_global = std::locale::global(own);
  EXPECT_EQ(Printed(params), Dump(2, "  int: 1234567\n  double: 0.5\n", 0, ""));
  std::locale::global(former_global);
  std::cout.imbue(former);
}

// Every set is its thread's own; what they share is the output.
TEST(Dump, IsWholeWhenSeveralThreadsPrint) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 50;
  const CapturedOutput output;
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([number] {
      MIVOParams params;
      params.AddInt(number);
      params.AddKeyValueInt("k", number);
      params.ToParams();
      for (int round = 0; round < kRounds; ++round)
        params.print();
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  std::string text = output.text();
  std::map<std::string, int> dumps;
  const std::size_t size = Dump(1, "  int: 0\n", 1, "   k - int: 0\n").size();
  ASSERT_EQ(text.size(), size * kThreads * kRounds);
  for (; !text.empty(); text.erase(0, size))
    ++dumps[text.substr(0, size)];
  for (int number = 0; number < kThreads; ++number) {
    const std::string digit = std::to_string(number);
    EXPECT_EQ(dumps[Dump(1, "  int: " + digit + "\n", 1, "   k - int: " + digit + "\n")], kRounds);
  }
}

TEST(Dump, ReachesTheProcessesStandardOutputAtOnce) {
  MIVOParams params;
  params.AddInt(5);
  params.AddKeyValueStream("k", "abc", 3);
  params.ToParams();

  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  std::cout.flush();
  std::fflush(stdout);
  const int standard_output = dup(STDOUT_FILENO);
  ASSERT_GE(standard_output, 0);
  ASSERT_EQ(dup2(ends[1], STDOUT_FILENO), STDOUT_FILENO);
  params.print();
  // Back before anything is flushed: what only lay in a buffer is not in the pipe now.
  ASSERT_EQ(dup2(standard_output, STDOUT_FILENO), STDOUT_FILENO);
  close(standard_output);
  close(ends[1]);
  std::string text;
  std::array<char, 256> part;
  ssize_t count = 0;
  while ((count = read(ends[0], part.data(), part.size())) > 0)
    text.append(part.data(), static_cast<std::size_t>(count));
  close(ends[0]);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(text, Dump(1, "  int: 5\n", 1, "   k - stream:  3\n"));
}

}  // namespace
