// Format-string compiler: a configured format ("Port $1 down on $A") becomes
// a printf-style template with one "%s" per reference and the list of trap
// data the placeholders stand for, so formatting a trap is one left-to-right
// fill.  Compiled once per configuration read or edit.
//
// All scanning steps over two-byte characters as units: their bytes are
// never taken for "\", "%", "$" or a digit.

#include "format_compiler.h"

#include <cstdio>
#include <cstring>

#include "events_msg.h"
#include "mbtext.h"

namespace {

using events::char_length;

// Sources longer than this compile the "Format string too long" text.
constexpr size_t kMaxSource = 4094;
// Reference numbers above this stay literal text.
constexpr int kMaxArgNumber = 80;

bool is_octal(char c) { return c >= '0' && c <= '7'; }

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// The value of a recognised escape whose letter is at e, with the number
// of source bytes it spans after the backslash; -1 when e starts no
// recognised escape (malformed reports a numeric escape with bad digits).
int escape_value(const char *e, int *span, bool *malformed) {
  *span = 1;
  *malformed = false;
  switch (*e) {
    case '"': return '"';
    case '\'': return '\'';
    case '\\': return '\\';
    case 'a': return '\a';
    case 'b': return '\b';
    case 'f': return '\f';
    case 'n': return '\n';
    case 'r': return '\r';
    case 't': return '\t';
    case 'v': return '\v';
    case '0':
    case '1':
      if (is_octal(e[1]) && is_octal(e[2])) {
        *span = 3;
        return (e[0] - '0') * 64 + (e[1] - '0') * 8 + (e[2] - '0');
      }
      *malformed = true;
      return -1;
    case 'x':
      if (hex_value(e[1]) >= 0 && hex_value(e[2]) >= 0) {
        *span = 3;
        return hex_value(e[1]) * 16 + hex_value(e[2]);
      }
      *malformed = true;
      return -1;
    default:
      return -1;
  }
}

// The kind of a reference whose kind character is c, and whether a number
// follows the kind character.  ARG_NUM (a digit right after "$") is chosen
// by the caller.
bool reference_kind(char c, substitute_arg *kind, bool *numbered) {
  static const struct {
    char c;
    substitute_arg kind;
    bool numbered;
  } kinds[] = {
      {'A', ARG_A, false},       {'a', ARG_a, false},        {'C', ARG_C, false},
      {'E', ARG_E, false},       {'e', ARG_e, false},        {'G', ARG_G, false},
      {'S', ARG_S, false},       {'s', ARG_SX, false},       {'c', ARG_CONTACT, false},
      {'l', ARG_LOCATION, false}, {'d', ARG_DESC, false},    {'T', ARG_T, false},
      {'*', ARG_STAR, false},    {'#', ARG_POUND, false},    {'-', ARG_NUM_DEF, true},
      {'+', ARG_NUM_PLUS, true}, {'=', ARG_NUM_EQ, true},    {'I', ARG_NUM_I, true},
      {'i', ARG_NUM_i, true},    {'t', ARG_NUM_t, true},     {'L', ARG_NUM_L, true},
      {'%', ARG_NUM_KWM, true},
  };
  for (const auto &entry : kinds) {
    if (entry.c == c) {
      *kind = entry.kind;
      *numbered = entry.numbered;
      return true;
    }
  }
  return false;
}

// Compiles the "$" at format[at]; returns the index from which the search
// for the next "$" goes on.
size_t compile_reference(trap_element *element, size_t at) {
  char *dollar = element->format + at;
  char *kind_char = dollar + 1;
  if (*kind_char == '\0' || char_length(kind_char) == 2) return at + 1;
  if (*kind_char == '$') {
    suck_a_char(kind_char);  // "$$" is one literal dollar sign
    return at + 1;
  }
  substitute_arg kind = ARG_NUM;
  bool numbered = true;
  char *digits = kind_char;
  if (!is_digit(*kind_char)) {
    if (!reference_kind(*kind_char, &kind, &numbered)) return at + 1;
    if (kind == ARG_NUM_KWM) {
      // The escape pass doubled the percent sign: the first one goes now,
      // the second is the kind character.
      suck_a_char(kind_char);
      if (*kind_char == '\0') return at + 1;
    }
    if (!numbered) {
      element->arg_list[element->num_args].arg_type = kind;
      element->arg_list[element->num_args].arg_num = 0;
      ++element->num_args;
      dollar[0] = '%';
      dollar[1] = 's';
      return at + 1;
    }
    digits = kind_char + char_length(kind_char);
  }
  if (*digits < '1' || *digits > '9') return at + 1;
  int number = 0;
  char *end = digits;
  while (is_digit(*end)) {
    number = number * 10 + (*end - '0');
    if (number > kMaxArgNumber) number = kMaxArgNumber + 1;
    ++end;
  }
  // Keep "$" and the last digit; the kind character and the other digits go.
  char *last_digit = end - 1;
  memmove(kind_char, last_digit, strlen(last_digit) + 1);
  if (number > kMaxArgNumber) return at + 1;
  element->arg_list[element->num_args].arg_type = kind;
  element->arg_list[element->num_args].arg_num = number;
  ++element->num_args;
  dollar[0] = '%';
  dollar[1] = 's';
  return at + 1;
}

}  // namespace

extern "C" EVENTS_EXPORT void suck_a_char(char *c) {
  if (*c == '\0') return;
  char *rest = c + char_length(c);
  memmove(c, rest, strlen(rest) + 1);
}

extern "C" EVENTS_EXPORT void interpret_esc_sequences(char *src_str, char *dst_str) {
  const char *p = src_str;
  char *out = dst_str;
  while (*p != '\0') {
    int length = char_length(p);
    if (length == 2) {
      *out++ = *p++;
      *out++ = *p++;
      continue;
    }
    if (*p == '%') {
      // Literal percent signs are doubled; an existing pair stays a pair.
      *out++ = '%';
      *out++ = '%';
      p += p[1] == '%' ? 2 : 1;
      continue;
    }
    if (*p != '\\') {
      *out++ = *p++;
      continue;
    }
    const char *letter = p + 1;
    if (*letter == '\0') break;  // a backslash ending the text is dropped
    int span;
    bool malformed;
    int value = escape_value(letter, &span, &malformed);
    if (value < 0) {
      // A numeric escape with bad digits writes nothing and the text goes
      // on after its letter; any other unknown escape is dropped whole.
      p = letter + (malformed ? 1 : char_length(letter));
      continue;
    }
    *out++ = static_cast<char>(value);
    p = letter + span;
    // The character after an escape is copied as it stands.
    if (*p == '\0') break;
    length = char_length(p);
    memcpy(out, p, length);
    out += length;
    p += length;
  }
  *out = '\0';
}

extern "C" {
EVENTS_EXPORT int trpFormatDontMallocRaw = 0;
}

extern "C" EVENTS_EXPORT void freeTrapElementContents(trap_element *trap_ele_ptr) {
  doFree(trap_ele_ptr->rawstring);
  trap_ele_ptr->rawstring = nullptr;
  doFree(trap_ele_ptr->format);
  trap_ele_ptr->format = nullptr;
}

extern "C" EVENTS_EXPORT void freeOptTrapElement(trap_element *trap_ele_ptr) {
  if (trap_ele_ptr == nullptr) return;
  freeTrapElementContents(trap_ele_ptr);
  doFree(trap_ele_ptr);
}

extern "C" EVENTS_EXPORT void makeFormatString(char *rawstring, trap_element *trap_ele_ptr) {
  trap_ele_ptr->num_args = 0;
  if (rawstring == nullptr) rawstring = doStrdup("");
  size_t length = strlen(rawstring);
  if (length > kMaxSource) {
    // The source block holds at least kMaxSource + 2 bytes.
    const char *message = _eventsMsg(1, 6, const_cast<char *>("Format string too long"));
    snprintf(rawstring, length + 1, "%s", message);
    length = strlen(rawstring);
  }
  auto *work = static_cast<char *>(doMalloc(static_cast<unsigned>(2 * length + 1)));
  interpret_esc_sequences(rawstring, work);

  if (trap_ele_ptr->rawstring != rawstring) doFree(trap_ele_ptr->rawstring);
  if (trpFormatDontMallocRaw) {
    doFree(rawstring);
    rawstring = nullptr;
  }
  trap_ele_ptr->rawstring = rawstring;
  doFree(trap_ele_ptr->format);
  trap_ele_ptr->format = work;

  size_t at = 0;
  while (work[at] != '\0') {
    if (work[at] != '$') {
      at += char_length(work + at);
      continue;
    }
    if (trap_ele_ptr->num_args + 1 > TRAP_MAX_REFERENCES) break;
    at = compile_reference(trap_ele_ptr, at);
  }
}
