#include "runner/NetlinkFamily.h"

#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "framework/UniqueFd.h"

namespace {

constexpr int kAnswerLimitMs = 1000;

// One GETFAMILY request with the name as its only attribute.
struct Request {
    nlmsghdr message;
    genlmsghdr controller;
    nlattr attribute;
    char name[GENL_NAMSIZ];
};

}  // namespace

bool NetlinkFamilyRegistered(const char* name) {
    const UniqueFd netlink(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC));
    if (!netlink.Valid())
        return false;

    Request request{};
    strncpy(request.name, name, sizeof request.name - 1);
    request.message.nlmsg_type = GENL_ID_CTRL;
    request.message.nlmsg_flags = NLM_F_REQUEST;
    request.controller.cmd = CTRL_CMD_GETFAMILY;
    request.controller.version = 1;
    request.attribute.nla_type = CTRL_ATTR_FAMILY_NAME;
    request.attribute.nla_len = static_cast<uint16_t>(NLA_HDRLEN + strlen(request.name) + 1);
    // What follows the name would be logged by the kernel as left over.
    request.message.nlmsg_len =
        static_cast<uint32_t>(offsetof(Request, attribute) + NLA_ALIGN(request.attribute.nla_len));
    if (send(netlink.Get(), &request, request.message.nlmsg_len, 0) !=
        static_cast<ssize_t>(request.message.nlmsg_len))
        return false;

    // The answer is the family's description, or an error message when there is no such family.
    alignas(nlmsghdr) char answer[4096];
    pollfd readable{netlink.Get(), POLLIN, 0};
    if (poll(&readable, 1, kAnswerLimitMs) != 1 ||
        recv(netlink.Get(), answer, sizeof answer, 0) < static_cast<ssize_t>(sizeof(nlmsghdr)))
        return false;
    return reinterpret_cast<const nlmsghdr*>(answer)->nlmsg_type == GENL_ID_CTRL;
}
