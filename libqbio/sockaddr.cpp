#include "libqbio/sockaddr.h"

SockAddrFamilies::SockAddrFamilies(std::initializer_list<sa_family_t> initial)
    : families(initial) {}

bool SockAddrFamilies::add(sa_family_t family) {
    return families.insert(family).second;
}

bool SockAddrFamilies::remove(sa_family_t family) {
    return families.erase(family) != 0;
}

bool SockAddrFamilies::contains(sa_family_t family) const {
    return families.find(family) != families.end();
}

bool SockAddrFamilies::contains(const sockaddr* address) const {
    return address != nullptr && contains(address->sa_family);
}

std::vector<sa_family_t> SockAddrFamilies::list() const {
    return std::vector<sa_family_t>(families.begin(), families.end());
}
