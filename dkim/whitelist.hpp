/*
 * Whitelist - the file of client networks whose unauthenticated mail is signed.
 *
 * The file is a list of white-space separated words, each an address with an
 * optional /prefix (see halyx::net::IPAnyNetwork); there is no comment syntax
 * and no word is refused.  A missing or unreadable file is an empty list.
 * Editing operations change the list and rewrite the whole file atomically;
 * write failures are logged, never thrown.  Allocation failures throw.
 */
#ifndef HALYX_MAIL_DKIM_WHITELIST_HPP
#define HALYX_MAIL_DKIM_WHITELIST_HPP

#include "dkim/whitelist.h"
#include "net/ip_network.hpp"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace halyx::mail::dkim
{

class Whitelist
{
  public:
    Whitelist(); // the default file, loaded
    explicit Whitelist(const std::filesystem::path &path);

    void load();
    bool check(const std::string &ip) const;
    /* find - the index of the first entry that admits ip, in file order; -1 for none */
    long find(const std::string &ip) const;
    void addNetwork(const std::string &address, uint16_t prefix); // saves when changed
    void putNetwork(const net::IPAnyNetwork &network);            // does not save
    void removeNetwork(const std::string &text);                  // saves when changed
    void save() const;

    std::filesystem::path path;
    std::vector<net::IPAnyNetwork> networks;
};

} // namespace halyx::mail::dkim

#endif
