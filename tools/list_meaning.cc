#include "tools/list_meaning.h"

namespace tpa::tools {

bool ListMeaning::add(const ListRule& rule, ListPlace place) {
  auto it = index_.find(rule.name);
  if (it == index_.end()) {
    names_.push_back({rule.name, 0, 0, place});
    it = index_.emplace(names_.back().name, names_.size() - 1).first;
  }
  Named& n = names_[it->second];
  const std::uint8_t self = rule.self ? rule.kind : 0, under = rule.under ? rule.kind : 0;
  const bool fresh = (n.self | self) != n.self || (n.under | under) != n.under;
  n.self |= self;
  n.under |= under;
  return fresh;
}

const ListMeaning::Named* ListMeaning::find(std::string_view name) const {
  const auto it = index_.find(name);
  return it == index_.end() ? nullptr : &names_[it->second];
}

std::uint8_t ListMeaning::above(std::string_view name) const {
  std::uint8_t kinds = 0;
  anyParent(name, [&](std::string_view parent, std::size_t) {
    if (const Named* n = find(parent)) kinds |= n->under;
    return false;
  });
  return kinds;
}

bool ListMeaning::listed(std::string_view name) const {
  const Named* n = find(name);
  return listedBy(above(name) | (n ? n->self : 0));
}

std::vector<MeaningEntry> ListMeaning::entries() const {
  std::vector<MeaningEntry> out;
  for (const Named& n : names_) {
    const std::uint8_t kinds = above(n.name);
    const bool around = listedBy(kinds);
    if (const bool self = listedBy(kinds | n.self); self != around) {
      out.push_back({&n.name, false, self, n.place});
    }
    if (const bool under = listedBy(kinds | n.under); under != around) {
      out.push_back({&n.name, true, under, n.place});
    }
  }
  return out;
}

}  // namespace tpa::tools
