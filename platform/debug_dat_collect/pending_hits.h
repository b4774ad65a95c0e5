#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

namespace TARVO::SupportForm {

/// Takes the number of a word or a pattern, and the offset behind the hit. Returns whether to go on.
using OnHit = std::function<bool(unsigned number, std::size_t end)>;

/// A hit that was found and is handed out later, as others may come before it.
struct Hit {
  unsigned number;
  std::size_t end;
};

/// Hands out the hits that end before `until`, in the order of their ends, and drops them.
/// @return Whether more are wanted.
inline bool HandOut(std::vector<Hit>& hits, std::size_t until, const OnHit& on_hit) {
  std::sort(hits.begin(), hits.end(), [](const Hit& one, const Hit& other) {
    return std::pair(one.end, one.number) < std::pair(other.end, other.number);
  });
  auto hit = hits.begin();
  for (; hit != hits.end() && hit->end < until; ++hit) {
    if (!on_hit(hit->number, hit->end)) return false;
  }
  hits.erase(hits.begin(), hit);
  return true;
}

}  // namespace TARVO::SupportForm
