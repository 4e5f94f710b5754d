#include <string>
#include <string_view>

#include <carrow/attributes/file_url.h>

namespace carrow {
namespace {

// The bytes a URL path keeps as they are: unreserved characters, sub-delimiters, ":", "@" and the
// separator "/". Everything else, including every byte of a multi-byte UTF-8 sequence, is encoded.
bool keepsInPath(unsigned char byte) {
  constexpr std::string_view kMarks = "-._~!$&'()*+,;=:@/";
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z')
         || (byte >= '0' && byte <= '9') || kMarks.find(static_cast<char>(byte)) != kMarks.npos;
}

}  // namespace

std::string FileURL::absoluteString() const {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string text = "file://";
  text.reserve(text.size() + path_.size() + 1);
  for (char c : path_) {
    const auto byte = static_cast<unsigned char>(c);
    if (keepsInPath(byte)) {
      text.push_back(c);
    } else {
      text.push_back('%');
      text.push_back(kHex[byte >> 4]);
      text.push_back(kHex[byte & 0xF]);
    }
  }
  if (isDirectory_ && path_ != "/") text.push_back('/');
  return text;
}

}  // namespace carrow
