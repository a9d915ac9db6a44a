// The counterparts of the raw roles on the mailbox library.

#include "mailboxLink.h"
#include "role.h"

namespace merlow::bench {

int playMailboxClient(const RoleArguments& arguments)
{
    MailboxLink link("");
    link.aimAt(arguments.at(1));
    return serveClient(link);
}

int playMailboxEcho(const RoleArguments& arguments)
{
    MailboxLink link(arguments.at(1));
    line::say("ready");
    for (;;) {
        link.giveBack(link.take());
    }
}

int playMailboxSink(const RoleArguments& arguments)
{
    MailboxLink link(arguments.at(1));
    line::say("ready");
    sink(link, std::stoul(arguments.at(2)));
}

} // namespace merlow::bench
