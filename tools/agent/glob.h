#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tidegate::agent {

// A pattern for whole texts: `*` stands for any bytes, also none, and `?` for one. All other bytes
// stand for themselves.
//
// Safe from any number of threads. A match takes the time of text times pattern at most.
class Glob {
 public:
  explicit Glob(std::string_view pattern);

  bool Matches(std::string_view text) const { return Match(text, nullptr); }

  // Also hands out what the wildcards stand for, from the left: pieces of `text`. Each `*` but the
  // last takes as little as it can.
  bool Match(std::string_view text, std::vector<std::string_view>* parts) const;

  // How many wildcards there are.
  size_t wildcards() const { return wildcards_; }

 private:
  // The bytes between two stars.
  struct Piece {
    std::string text;
    bool plain = true;  // without `?`

    bool FitsAt(std::string_view in, size_t at) const;
    // Where it fits first, from `at` on; npos if it does not.
    size_t Find(std::string_view in, size_t at) const;
    void AddParts(std::string_view in, size_t at, std::vector<std::string_view>* parts) const;
  };

  std::vector<Piece> pieces_;  // at least one
  size_t wildcards_ = 0;
};

}  // namespace tidegate::agent
