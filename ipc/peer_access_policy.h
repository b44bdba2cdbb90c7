// PeerAccessPolicy: which local processes may use a server socket, judged by
// the credentials the kernel recorded for the peer when it connected
// (SO_PEERCRED, and SO_PEERGROUPS for its supplementary groups). A peer the
// policy refuses is closed at accept, before a single byte of it is read.
//
// Allowed: uid 0, the server's own uid, every listed uid, and a peer whose
// primary or supplementary group is listed. Lists are written as decimal ids
// separated by commas or blanks ("1000,2000"); an entry that is not a whole
// number in 0..4294967294 is ignored and reported by ParseIdList.
//
//   PeerAccessPolicy policy(geteuid(), PeerAccessPolicy::ParseIdList("1000", nullptr), {});
//   std::string who;
//   if (!policy.allowsPeer(fd, &who)) { log(who); close(fd); }
//
// Immutable after construction: any thread may use one.
#pragma once

#include <sys/types.h>

#include <set>
#include <string>
#include <vector>

class PeerAccessPolicy {
  public:
    PeerAccessPolicy(uid_t ownUid, std::set<uid_t> uids, std::set<gid_t> gids);

    // The ids of a list; malformed entries are skipped and, when `rejected`
    // is given, appended to it.
    static std::set<unsigned int> ParseIdList(const std::string& text,
                                              std::vector<std::string>* rejected);

    bool allows(uid_t uid, gid_t gid, const std::vector<gid_t>& groups) const;
    // The policy applied to the peer of a connected Unix socket. `who` is set
    // to "pid P uid U gid G" (or why the credentials could not be read); a
    // peer whose credentials cannot be read is refused.
    bool allowsPeer(int fd, std::string* who) const;

  private:
    uid_t ownUid_;
    std::set<uid_t> uids_;
    std::set<gid_t> gids_;
};
