// A text that its maker knows the length of and writes into storage the
// caller provides. A caller that needs the text in storage of its own kind
// (the COM layer: a BSTR) gets it without an intermediate copy; everyone
// else takes str().
//
// A SizedText refers to the object that made it: use it before that object
// changes or goes (the COM layer writes it at once).
#pragma once

#include <cstddef>
#include <string>

namespace valmetra {

class SizedText {
 public:
  // Writes exactly the text's size() characters to `out`.
  using Writer = void (*)(const void* maker, char16_t* out);

  SizedText(std::size_t size, Writer write, const void* maker) noexcept : size_(size), write_(write), maker_(maker) {}

  std::size_t size() const noexcept { return size_; }
  void write_to(char16_t* out) const { write_(maker_, out); }
  std::u16string str() const {
    std::u16string text(size_, u'\0');
    write_to(text.data());
    return text;
  }

 private:
  std::size_t size_;
  Writer write_;
  const void* maker_;
};

}  // namespace valmetra
