// RingTape::Args: the arguments of one trace, kept in binary until read.
//
// A trace statement streams its literals and values into an Args as it
// would into a std::ostream. The Args keeps them as they are (numbers as
// numbers, Ethernet and IP addresses and uuids as their bytes, texts as
// their bytes) and formatArgs() makes the text only when someone reads it:
// ringtape-dump, or the trace stream when it is selected. The text is
// exactly what a std::ostream with default formatting would have written,
// so what a trace says does not depend on how it was kept.
//
// An Args keeps no more than its text can show: it is made with the number
// of bytes of text that will be kept (the ring's longest message), and once
// the values streamed are sure to fill them, longer texts are cut and later
// values dropped, so a trace of a large value costs what it keeps. The text
// made from a cut Args is longer than the limit, which is how a reader
// knows to mark it truncated.
//
// Values of other types get in three ways:
//   - a function ringTapeArg(RingTape::Args&, const T&) found by argument
//     dependent lookup, which streams the value's parts (see model/Uuid.h)
//     and must write the text the value's std::ostream form writes;
//   - boundedText(), for a text that is costly to make in full: the maker
//     is asked for only as much as will be kept;
//   - anything else that a std::ostream takes is formatted to text at once,
//     through a stream that the Args keeps for the statement, so
//     manipulators (std::hex, std::setprecision) act on what follows them
//     as they would on a std::ostream.
//
// Single-threaded, as the rest of the facility.
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <ios>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

namespace Ipkit {
class EthAddr;
class IpAddr;
class Ip6Addr;
class IpGenAddr;
}  // namespace Ipkit

namespace Kiln {
class String;
}

namespace RingTape {

class Args;

// The text of arguments encoded by an Args. Bytes that do not decode end
// the text with " [unreadable]".
std::string formatArgs(std::string_view bytes);

template <class T>
concept HasRingTapeArg = requires(Args& args, const T& value) { ringTapeArg(args, value); };

template <class T>
concept CharLike = std::same_as<T, char> || std::same_as<T, signed char> || std::same_as<T, unsigned char>;

class Args {
 public:
  // No limit: the whole text is kept.
  static constexpr std::size_t unlimited = static_cast<std::size_t>(-1) / 2;

  Args() = default;
  Args(const Args&) = delete;
  Args& operator=(const Args&) = delete;

  // Starts over for a statement whose text is kept up to `limit` bytes.
  void reset(std::size_t limit);
  // Gives back memory that one large statement made the buffer take.
  void trim();

  // The encoded arguments, for formatArgs().
  std::string_view bytes() const { return bytes_; }
  // Whether text was cut or values dropped for the limit.
  bool cut() const { return cut_; }

  Args& operator<<(std::string_view text);
  Args& operator<<(const char* text);
  Args& operator<<(const std::string& text) { return *this << std::string_view(text); }
  Args& operator<<(const Kiln::String& text);
  Args& operator<<(char c) { return character(c); }
  Args& operator<<(signed char c) { return character(static_cast<char>(c)); }
  Args& operator<<(unsigned char c) { return character(static_cast<char>(c)); }
  // As std::ostream without std::boolalpha: "1" and "0".
  Args& operator<<(bool b) { return unsignedNumber(b ? 1 : 0); }
  template <std::integral T>
    requires(!CharLike<T> && !std::same_as<T, bool>)
  Args& operator<<(T value) {
    if constexpr (std::is_signed_v<T>) {
      return signedNumber(static_cast<std::int64_t>(value));
    } else {
      return unsignedNumber(static_cast<std::uint64_t>(value));
    }
  }
  Args& operator<<(double value);
  Args& operator<<(float value) { return *this << static_cast<double>(value); }
  Args& operator<<(const Ipkit::EthAddr& mac);
  Args& operator<<(const Ipkit::IpAddr& ip);
  Args& operator<<(const Ipkit::Ip6Addr& ip);
  Args& operator<<(const Ipkit::IpGenAddr& ip);
  Args& operator<<(std::ios_base& (*manipulator)(std::ios_base&));
  Args& operator<<(std::ostream& (*manipulator)(std::ostream&));
  template <class T>
    requires(!std::is_arithmetic_v<T> && !std::is_convertible_v<const T&, std::string_view>)
  Args& operator<<(const T& value) {
    if constexpr (HasRingTapeArg<T>) {
      ringTapeArg(*this, value);
    } else {
      formatted(value);
    }
    return *this;
  }

  // A uuid as its four words; it reads "%08x-%04x-%04x-%04x-%04x%08x".
  void uuid(const std::array<std::uint32_t, 4>& words);
  // A text made by `make(std::string& out, std::size_t wanted)`, which
  // appends the text to `out`, or at least its first `wanted` bytes when it
  // is longer.
  template <class Make>
  void boundedText(Make make) {
    if (room() == 0) {
      cut_ = true;
      return;
    }
    scratch_.clear();
    make(scratch_, textMode_ ? unlimited : room());
    *this << std::string_view(scratch_);
  }

 private:
  Args& character(char c);
  Args& signedNumber(std::int64_t value);
  Args& unsignedNumber(std::uint64_t value);
  // Bytes of text still worth keeping: one more than the limit allows, so
  // that a cut text is seen to be longer than the limit.
  std::size_t room() const { return shown_ >= keep_ ? 0 : keep_ - shown_; }
  // Whether a value whose text has at least `least` bytes is kept;
  // counts it when it is.
  bool admit(std::size_t least);
  void put(unsigned char tag, const void* data, std::size_t size);
  std::ostringstream& textStream();
  // Formats `value` with the statement's stream; a stream whose formatting
  // has been changed takes every later value too.
  template <class T>
  void formatted(const T& value) {
    std::ostringstream& stream = textStream();
    stream << value;
    flushStream();
  }
  void flushStream();

  std::string bytes_;
  std::string scratch_;
  std::size_t keep_ = unlimited;
  std::size_t shown_ = 0;
  bool cut_ = false;
  bool textMode_ = false;
  std::unique_ptr<std::ostringstream> stream_;
};

}  // namespace RingTape
