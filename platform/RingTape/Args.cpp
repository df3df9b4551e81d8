#include "RingTape/Args.h"

#include <charconv>
#include <cstdio>
#include <cstring>

#include "Ipkit/EthAddr.h"
#include "Ipkit/IpAddr.h"
#include "Ipkit/IpGenAddr.h"
#include "Kiln/String.h"

namespace RingTape {
namespace {

// One argument is a tag byte and its bytes; numbers are base-128 varints
// (signed ones zigzag coded), texts a varint length and the bytes.
enum Tag : unsigned char {
  tagText = 1,
  tagSigned = 2,
  tagUnsigned = 3,
  tagDouble = 4,
  tagChar = 5,
  tagMac = 6,
  tagIp4 = 7,
  tagIp6 = 8,
  tagUuid = 9,
};

// The fewest bytes of text each kind of value shows.
constexpr std::size_t macText = 17;
constexpr std::size_t ip4Text = 7;
constexpr std::size_t ip6Text = 2;
constexpr std::size_t uuidText = 36;

// Memory a statement's buffers keep between statements.
constexpr std::size_t keptCapacity = 16 * 1024;

void putVarint(std::string& out, std::uint64_t value) {
  char buffer[10];
  std::size_t n = 0;
  while (value >= 0x80) {
    buffer[n++] = static_cast<char>(value | 0x80);
    value >>= 7;
  }
  buffer[n++] = static_cast<char>(value);
  out.append(buffer, n);
}

bool getVarint(std::string_view& in, std::uint64_t& value) {
  value = 0;
  for (unsigned shift = 0; shift < 64 && !in.empty(); shift += 7) {
    const auto byte = static_cast<unsigned char>(in.front());
    in.remove_prefix(1);
    value |= std::uint64_t{byte & 0x7fu} << shift;
    if (!(byte & 0x80)) return true;
  }
  return false;
}

bool take(std::string_view& in, void* out, std::size_t size) {
  if (in.size() < size) return false;
  std::memcpy(out, in.data(), size);
  in.remove_prefix(size);
  return true;
}

template <class T>
void appendNumber(std::string& out, T value) {
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(buffer, result.ptr);
}

bool isDefaultFormat(const std::ostream& stream) {
  return stream.flags() == (std::ios_base::dec | std::ios_base::skipws) && stream.precision() == 6 &&
         stream.width() == 0 && stream.fill() == ' ';
}

}  // namespace

void Args::reset(std::size_t limit) {
  bytes_.clear();
  keep_ = limit >= unlimited ? unlimited : limit + 1;
  shown_ = 0;
  cut_ = false;
  textMode_ = false;
  if (stream_) {
    stream_->str(std::string());
    stream_->clear();
    stream_->flags(std::ios_base::dec | std::ios_base::skipws);
    stream_->precision(6);
    stream_->width(0);
    stream_->fill(' ');
  }
}

void Args::trim() {
  if (bytes_.capacity() > keptCapacity) std::string().swap(bytes_);
  if (scratch_.capacity() > keptCapacity) std::string().swap(scratch_);
}

bool Args::admit(std::size_t least) {
  if (shown_ >= keep_) {
    cut_ = true;
    return false;
  }
  shown_ += least;
  return true;
}

void Args::put(unsigned char tag, const void* data, std::size_t size) {
  bytes_.push_back(static_cast<char>(tag));
  bytes_.append(static_cast<const char*>(data), size);
}

Args& Args::operator<<(std::string_view text) {
  if (textMode_) {
    formatted(text);
    return *this;
  }
  const std::size_t room = this->room();
  if (room == 0) {
    cut_ = cut_ || !text.empty();
    return *this;
  }
  if (text.size() > room) {
    text = text.substr(0, room);
    cut_ = true;
  }
  shown_ += text.size();
  bytes_.push_back(static_cast<char>(tagText));
  putVarint(bytes_, text.size());
  bytes_.append(text);
  return *this;
}

Args& Args::operator<<(const char* text) {
  // A null text writes nothing, where a std::ostream would fail.
  return *this << (text ? std::string_view(text) : std::string_view());
}

Args& Args::operator<<(const Kiln::String& text) { return *this << std::string_view(text.stringValue()); }

Args& Args::character(char c) {
  if (textMode_) {
    formatted(c);
  } else if (admit(1)) {
    put(tagChar, &c, 1);
  }
  return *this;
}

Args& Args::signedNumber(std::int64_t value) {
  if (textMode_) {
    formatted(value);
  } else if (admit(1)) {
    bytes_.push_back(static_cast<char>(tagSigned));
    putVarint(bytes_, (static_cast<std::uint64_t>(value) << 1) ^ static_cast<std::uint64_t>(value >> 63));
  }
  return *this;
}

Args& Args::unsignedNumber(std::uint64_t value) {
  if (textMode_) {
    formatted(value);
  } else if (admit(1)) {
    bytes_.push_back(static_cast<char>(tagUnsigned));
    putVarint(bytes_, value);
  }
  return *this;
}

Args& Args::operator<<(double value) {
  if (textMode_) {
    formatted(value);
  } else if (admit(1)) {
    put(tagDouble, &value, sizeof value);
  }
  return *this;
}

Args& Args::operator<<(const Ipkit::EthAddr& mac) {
  if (textMode_) {
    formatted(mac);
  } else if (admit(macText)) {
    put(tagMac, mac.bytes().data(), mac.bytes().size());
  }
  return *this;
}

Args& Args::operator<<(const Ipkit::IpAddr& ip) {
  if (textMode_) {
    formatted(ip);
  } else if (admit(ip4Text)) {
    const auto bytes = ip.bytes();
    put(tagIp4, bytes.data(), bytes.size());
  }
  return *this;
}

Args& Args::operator<<(const Ipkit::Ip6Addr& ip) {
  if (textMode_) {
    formatted(ip);
  } else if (admit(ip6Text)) {
    put(tagIp6, ip.bytes().data(), ip.bytes().size());
  }
  return *this;
}

Args& Args::operator<<(const Ipkit::IpGenAddr& ip) {
  if (ip.isV4()) return *this << ip.v4Addr();
  if (ip.isV6()) return *this << ip.v6Addr();
  return *this << std::string_view();
}

Args& Args::operator<<(std::ios_base& (*manipulator)(std::ios_base&)) {
  textStream() << manipulator;
  flushStream();
  return *this;
}

Args& Args::operator<<(std::ostream& (*manipulator)(std::ostream&)) {
  textStream() << manipulator;
  flushStream();
  return *this;
}

void Args::uuid(const std::array<std::uint32_t, 4>& words) {
  if (textMode_) {
    char text[uuidText + 1];
    std::snprintf(text, sizeof text, "%08x-%04x-%04x-%04x-%04x%08x", words[0], words[1] >> 16, words[1] & 0xffff,
                  words[2] >> 16, words[2] & 0xffff, words[3]);
    formatted(std::string_view(text, uuidText));
  } else if (admit(uuidText)) {
    put(tagUuid, words.data(), sizeof words);
  }
}

std::ostringstream& Args::textStream() {
  if (!stream_) stream_ = std::make_unique<std::ostringstream>();
  return *stream_;
}

void Args::flushStream() {
  std::ostringstream& stream = *stream_;
  textMode_ = textMode_ || !isDefaultFormat(stream);
  // The text goes in as a plain text; the stream keeps its formatting.
  const bool wasTextMode = textMode_;
  textMode_ = false;
  *this << stream.view();
  textMode_ = wasTextMode;
  stream.str(std::string());
}

std::string formatArgs(std::string_view in) {
  std::string out;
  while (!in.empty()) {
    const auto tag = static_cast<unsigned char>(in.front());
    in.remove_prefix(1);
    bool ok = true;
    switch (tag) {
      case tagText: {
        std::uint64_t size = 0;
        ok = getVarint(in, size) && size <= in.size();
        if (ok) {
          out.append(in.substr(0, size));
          in.remove_prefix(size);
        }
        break;
      }
      case tagSigned: {
        std::uint64_t coded = 0;
        ok = getVarint(in, coded);
        if (ok) appendNumber(out, static_cast<std::int64_t>((coded >> 1) ^ (~(coded & 1) + 1)));
        break;
      }
      case tagUnsigned: {
        std::uint64_t value = 0;
        ok = getVarint(in, value);
        if (ok) appendNumber(out, value);
        break;
      }
      case tagDouble: {
        double value = 0;
        ok = take(in, &value, sizeof value);
        if (ok) {
          std::ostringstream text;
          text << value;
          out += text.view();
        }
        break;
      }
      case tagChar: {
        char c = 0;
        ok = take(in, &c, 1);
        if (ok) out.push_back(c);
        break;
      }
      case tagMac: {
        Ipkit::EthAddr::Bytes bytes;
        ok = take(in, bytes.data(), bytes.size());
        if (ok) {
          char text[Ipkit::EthAddr::textSize];
          Ipkit::EthAddr(bytes).formatTo(text);
          out.append(text, sizeof text);
        }
        break;
      }
      case tagIp4: {
        std::array<std::uint8_t, 4> bytes;
        ok = take(in, bytes.data(), bytes.size());
        if (ok) {
          char text[Ipkit::IpAddr::maxTextSize + 1];
          out.append(text, Ipkit::IpAddr(bytes[0], bytes[1], bytes[2], bytes[3]).formatTo(text));
        }
        break;
      }
      case tagIp6: {
        Ipkit::Ip6Addr::Bytes bytes;
        ok = take(in, bytes.data(), bytes.size());
        if (ok) {
          char text[Ipkit::Ip6Addr::maxTextSize + 1];
          out.append(text, Ipkit::Ip6Addr(bytes).formatTo(text));
        }
        break;
      }
      case tagUuid: {
        std::array<std::uint32_t, 4> words;
        ok = take(in, words.data(), sizeof words);
        if (ok) {
          char text[uuidText + 1];
          std::snprintf(text, sizeof text, "%08x-%04x-%04x-%04x-%04x%08x", words[0], words[1] >> 16,
                        words[1] & 0xffff, words[2] >> 16, words[2] & 0xffff, words[3]);
          out.append(text, uuidText);
        }
        break;
      }
      default: ok = false;
    }
    if (!ok) {
      out += " [unreadable]";
      break;
    }
  }
  return out;
}

}  // namespace RingTape
