// Format-string compiler: source text in, template and argument list out.

#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "support/fixtures.h"
#include "trp_format.h"

namespace {

using Args = std::vector<std::pair<substitute_arg, int>>;

struct Compiled {
  std::string format;
  Args args;
  std::string raw;
};

Compiled compile(const std::string &source) {
  trap_element element;
  memset(&element, 0, sizeof element);
  makeFormatString(doStrdup(source.c_str()), &element);
  Compiled result{element.format, {}, element.rawstring != nullptr ? element.rawstring : "(null)"};
  for (int i = 0; i < element.num_args; ++i) {
    result.args.emplace_back(element.arg_list[i].arg_type, element.arg_list[i].arg_num);
  }
  freeTrapElementContents(&element);
  return result;
}

TEST(FormatCompiler, ReferencesBecomePlaceholdersInOrder) {
  const std::string too_long = "Format string too long";
  // Only 79 references are compiled; the rest stay literal, even "$$".
  std::string many, many_format;
  Args many_args;
  for (int i = 1; i <= 85; ++i) {
    std::string reference = std::string("$").append(std::to_string(i % 9 + 1)).append(" ");
    many += reference;
    many_format += i <= 79 ? "%s " : reference;
    if (i <= 79) many_args.emplace_back(ARG_NUM, i % 9 + 1);
  }
  const struct {
    std::string source, format;
    Args args;
  } cases[] = {
      {"Port $1 down (100%)", "Port %s down (100%%)", {{ARG_NUM, 1}}},
      {"$-12 $+3 $=4", "%s %s %s", {{ARG_NUM_DEF, 12}, {ARG_NUM_PLUS, 3}, {ARG_NUM_EQ, 4}}},
      {"$I5$i6$t7$L8", "%s%s%s%s",
       {{ARG_NUM_I, 5}, {ARG_NUM_i, 6}, {ARG_NUM_t, 7}, {ARG_NUM_L, 8}}},
      {"$A$a$C$E$e$G$S$s$c$l$d$T$*$#", "%s%s%s%s%s%s%s%s%s%s%s%s%s%s",
       {{ARG_A, 0}, {ARG_a, 0}, {ARG_C, 0}, {ARG_E, 0}, {ARG_e, 0}, {ARG_G, 0}, {ARG_S, 0},
        {ARG_SX, 0}, {ARG_CONTACT, 0}, {ARG_LOCATION, 0}, {ARG_DESC, 0}, {ARG_T, 0},
        {ARG_STAR, 0}, {ARG_POUND, 0}}},
      // "$%" and a number names a code-point binding; "$%%" means the same.
      {"cp $%7 and $%%12", "cp %s and %s", {{ARG_NUM_KWM, 7}, {ARG_NUM_KWM, 12}}},
      {"$80 $10", "%s %s", {{ARG_NUM, 80}, {ARG_NUM, 10}}},
      // "$$" is a literal dollar; the search goes on after it.
      {"Cost $$5", "Cost $5", {}},
      {"$$$1", "$%s", {{ARG_NUM, 1}}},
      // No valid number: the reference stays as it was written.
      {"$0 $+x $-0 $Q $", "$0 $+x $-0 $Q $", {}},
      {"$%x", "$%x", {}},
      // Above 80 the kind and all digits but the last go, and nothing is recorded.
      {"$99 $-81 $123", "$9 $1 $3", {}},
      {"", "", {}},
      {many, many_format, many_args},
      {many + "$$", many_format + "$$", many_args},
      // 4096 bytes and more are too long: the catalog text is compiled instead.
      {std::string(4092, 'x') + "$1", std::string(4092, 'x') + "%s", {{ARG_NUM, 1}}},
      {std::string(4094, 'x') + "$1", too_long, {}},
      {std::string(4095, 'y'), too_long, {}},
  };
  for (const auto &c : cases) {
    Compiled result = compile(c.source);
    EXPECT_EQ(result.format, c.format) << c.source;
    EXPECT_EQ(result.args, c.args) << c.source;
    EXPECT_EQ(result.raw, c.format == too_long ? too_long : c.source);
  }
}

TEST(FormatCompiler, EscapesAndPercentSigns) {
  const std::pair<const char *, const char *> cases[] = {
      {"A\\qB", "AB"}, {"tab\\tX", "tab\tX"},
      {"\\x41\\x42", "A\\x42"}, {"\\n\\t", "\n\\t"},
      {"\\\"quoted\\\" \\'q\\'", "\"quoted\" 'q'"}, {"\\\\", "\\"},
      {"\\a\\b\\f\\r\\v.", "\a\\b\f\\r\v."}, {"\\101-\\177.", "A-\177."},
      {"\\x4g|\\08|\\2", "4g|8|"}, {"50% and 50%% and %%%", "50%% and 50%% and %%%%"},
      {"\\n%d", "\n%d"}, {"end\\", "end"}, {"\\x7e", "~"},
  };
  for (const auto &[source, expected] : cases) {
    std::string text(source);
    std::vector<char> out(2 * text.size() + 1);
    interpret_esc_sequences(text.data(), out.data());
    EXPECT_EQ(std::string(out.data()), expected) << source;
  }
}

TEST(FormatCompiler, TwoByteCharactersAreNeverSyntax) {
  // In Big5 the second byte of many characters is a backslash; the
  // scanner must step over such characters whole.
  testsupport::TempDir locales;
  bool big5 = testsupport::run_command({"localedef", "-i", "zh_TW", "-f", "BIG5",
                                        locales.file("zh_TW.BIG5")}) == 0;
  setenv("LOCPATH", locales.path().c_str(), 1);
  big5 = big5 && setlocale(LC_ALL, "zh_TW.BIG5") != nullptr;
  unsetenv("LOCPATH");
  if (!big5) {
    setlocale(LC_ALL, "C");
    GTEST_SKIP() << "cannot build or use the zh_TW.BIG5 locale";
  }
  const std::string kanji_backslash = "\xA5\\";  // one character
  Compiled result = compile(kanji_backslash + "n" + kanji_backslash + "$1 100%");
  setlocale(LC_ALL, "C");
  EXPECT_EQ(result.format, kanji_backslash + "n" + kanji_backslash + "%s 100%%");
  EXPECT_EQ(result.args, (Args{{ARG_NUM, 1}}));
}

TEST(FormatCompiler, RecompileReleasesTheOldTextsAndDropsRawOnRequest) {
  trap_element element;
  memset(&element, 0, sizeof element);
  makeFormatString(doStrdup("first $1"), &element);
  makeFormatString(element.rawstring, &element);  // its own source again
  EXPECT_STREQ(element.format, "first %s");
  trpFormatDontMallocRaw = 1;
  makeFormatString(doStrdup("second $A $B"), &element);
  trpFormatDontMallocRaw = 0;
  EXPECT_EQ(element.rawstring, nullptr);
  EXPECT_STREQ(element.format, "second %s $B");
  EXPECT_EQ(element.num_args, 1);
  freeTrapElementContents(&element);
}

}  // namespace
