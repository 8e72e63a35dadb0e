// A set of socket address families (AF_INET, AF_INET6, AF_CAN, ...), for code that has to
// remember which kinds of socket addresses it accepts or has seen.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <initializer_list>
#include <set>
#include <vector>

/// A set of `sa_family_t` values, each held at most once, listed in ascending order.
///
/// Thread rules: none of its own; a set shared between threads is guarded by its owner.
class SockAddrFamilies {
  public:
    SockAddrFamilies() = default;
    SockAddrFamilies(std::initializer_list<sa_family_t> initial);

    /// Adds `family`; returns true if it was not in the set before.
    bool add(sa_family_t family);
    /// Removes `family`; returns true if it was in the set.
    bool remove(sa_family_t family);
    bool contains(sa_family_t family) const;
    /// True if the family of `address` (its sa_family field) is in the set; false for null.
    bool contains(const sockaddr* address) const;

    size_t size() const { return families.size(); }
    bool empty() const { return families.empty(); }
    void clear() { families.clear(); }

    /// The families in ascending order.
    std::vector<sa_family_t> list() const;

    bool operator==(const SockAddrFamilies& other) const { return families == other.families; }
    bool operator!=(const SockAddrFamilies& other) const { return families != other.families; }

  private:
    std::set<sa_family_t> families;
};
