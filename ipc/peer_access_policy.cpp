#include "ipc/peer_access_policy.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "diag/quor_bpf_strings.h"

using Quor::Bpf::StringPrintf;

namespace {

// (uid_t)-1 and (gid_t)-1 mean "no id" to the kernel; never a real one.
constexpr unsigned long kMaxId = 4294967294UL;
// Supplementary groups read per peer: a first buffer that fits nearly every
// process, and the kernel's own limit (NGROUPS_MAX).
constexpr size_t kPeerGroupsFirstTry = 64;
constexpr size_t kMaxPeerGroups = 65536;

}  // namespace

PeerAccessPolicy::PeerAccessPolicy(uid_t ownUid, std::set<uid_t> uids, std::set<gid_t> gids)
    : ownUid_(ownUid), uids_(std::move(uids)), gids_(std::move(gids)) {}

std::set<unsigned int> PeerAccessPolicy::ParseIdList(const std::string& text,
                                                     std::vector<std::string>* rejected) {
    std::set<unsigned int> ids;
    std::string entry;
    auto take = [&] {
        if (entry.empty()) return;
        bool digits = entry.size() <= 10;
        for (const char c : entry) digits = digits && c >= '0' && c <= '9';
        const unsigned long value = digits ? strtoul(entry.c_str(), nullptr, 10) : 0;
        if (digits && value <= kMaxId) {
            ids.insert(static_cast<unsigned int>(value));
        } else if (rejected != nullptr) {
            rejected->push_back(entry);
        }
        entry.clear();
    };
    for (const char c : text) {
        if (c == ',' || c == ' ' || c == '\t') {
            take();
        } else {
            entry.push_back(c);
        }
    }
    take();
    return ids;
}

bool PeerAccessPolicy::allows(uid_t uid, gid_t gid, const std::vector<gid_t>& groups) const {
    if (uid == 0 || uid == ownUid_ || uids_.count(uid) != 0) return true;
    if (gids_.count(gid) != 0) return true;
    for (const gid_t group : groups) {
        if (gids_.count(group) != 0) return true;
    }
    return false;
}

bool PeerAccessPolicy::allowsPeer(int fd, std::string* who) const {
    ucred cred = {};
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || len != sizeof(cred)) {
        if (who != nullptr) *who = StringPrintf("no peer credentials (%s)", strerror(errno));
        return false;
    }
    if (who != nullptr) *who = StringPrintf("pid %d uid %u gid %u", cred.pid, cred.uid, cred.gid);
    if (allows(cred.uid, cred.gid, {})) return true;
    if (gids_.empty()) return false;
    // Supplementary groups are only needed when the listed gids are not the
    // peer's primary one. A kernel without SO_PEERGROUPS, or a failed read,
    // leaves the primary group alone to judge by.
    std::vector<gid_t> groups(kPeerGroupsFirstTry);
    for (int attempt = 0; attempt < 2; ++attempt) {
        socklen_t groupsLen = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &groupsLen) == 0) {
            groups.resize(std::min<size_t>(groupsLen / sizeof(gid_t), groups.size()));
            return allows(cred.uid, cred.gid, groups);
        }
        // Too small: the kernel said how large, and copied nothing.
        if (errno != ERANGE || groupsLen / sizeof(gid_t) > kMaxPeerGroups) break;
        groups.assign(groupsLen / sizeof(gid_t), 0);
    }
    return false;
}
