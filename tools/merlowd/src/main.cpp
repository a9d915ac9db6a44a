// merlowd: the process that hosts the board controller server.

#include "host.h"
#include "merlowIf.h"
#include "merlowImpl.h"
#include "programOptions.h"

#include <cstdlib>

namespace {

class LibraryServer : public merlow::merlowd::Server {
public:
    explicit LibraryServer(bool powerDropSupervision) : m_powerDropSupervision(powerDropSupervision) {}

    bool start() override
    {
        auto& server = Merlow::V1::MerlowIf::getInstance();
        if (m_powerDropSupervision) {
            server.getImpl().enablePowerDropSvFaultSupport(true);
        }
        return server.startServer();
    }
    int stop() override { return Merlow::V1::MerlowIf::getInstance().getImpl().stop(false); }

private:
    bool m_powerDropSupervision;
};

} // namespace

int main(int argc, char** argv)
{
    merlow::base::Syntax app("merlowd", "Hosts the board controller server until SIGTERM or SIGINT.");
    std::string runDir;
    app.addCommonOptions(runDir);
    bool powerDropSupervision = false;
    app.addFlag("--power-drop-supervision", powerDropSupervision,
                "Power drops are supervised elsewhere: suppress the external power supply fault");
    app.footer(
        "Tells a service manager by NOTIFY_SOCKET when clients can connect.\n"
        "Exit status: 0 stopped by a signal, 1 the server did not start or ended by itself, 2 wrong usage.");
    if (const auto status = app.parse(argc, argv)) {
        return *status;
    }
    merlow::base::useRunDir(runDir);
    LibraryServer server(powerDropSupervision);
    return merlow::merlowd::Host(server).run();
}
