#include "agent/glob.h"

#include <algorithm>
#include <utility>

namespace tidegate::agent {

Glob::Glob(std::string_view pattern) {
  Piece piece;
  for (const char c : pattern) {
    if (c == '*' || c == '?') ++wildcards_;
    if (c == '*') {
      pieces_.push_back(std::exchange(piece, {}));
      continue;
    }
    piece.text += c;
    piece.plain = piece.plain && c != '?';
  }
  pieces_.push_back(std::move(piece));
}

bool Glob::Piece::FitsAt(std::string_view in, size_t at) const {
  const std::string_view part = in.substr(at, text.size());
  if (plain) return part == text;
  return std::equal(part.begin(), part.end(), text.begin(), text.end(),
                    [](char c, char wanted) { return wanted == '?' || wanted == c; });
}

size_t Glob::Piece::Find(std::string_view in, size_t at) const {
  if (plain) return in.find(text, at);
  for (; at + text.size() <= in.size(); ++at) {
    if (FitsAt(in, at)) return at;
  }
  return std::string_view::npos;
}

void Glob::Piece::AddParts(std::string_view in, size_t at,
                           std::vector<std::string_view>* parts) const {
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '?') parts->push_back(in.substr(at + i, 1));
  }
}

bool Glob::Match(std::string_view text, std::vector<std::string_view>* parts) const {
  if (parts != nullptr) parts->clear();
  const Piece& first = pieces_.front();
  const Piece& last = pieces_.back();
  if (pieces_.size() == 1) {
    if (text.size() != first.text.size() || !first.FitsAt(text, 0)) return false;
    if (parts != nullptr) first.AddParts(text, 0, parts);
    return true;
  }
  if (text.size() < first.text.size() + last.text.size() || !first.FitsAt(text, 0)) return false;
  const size_t end = text.size() - last.text.size();
  if (!last.FitsAt(text, end)) return false;
  if (parts != nullptr) first.AddParts(text, 0, parts);
  size_t at = first.text.size();
  for (size_t i = 1; i + 1 < pieces_.size(); ++i) {
    const size_t found = pieces_[i].Find(text.substr(0, end), at);
    if (found == std::string_view::npos) return false;
    if (parts != nullptr) {
      parts->push_back(text.substr(at, found - at));
      pieces_[i].AddParts(text, found, parts);
    }
    at = found + pieces_[i].text.size();
  }
  if (parts != nullptr) {
    parts->push_back(text.substr(at, end - at));
    last.AddParts(text, end, parts);
  }
  return true;
}

}  // namespace tidegate::agent
