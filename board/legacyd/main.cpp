#include "host.h"
#include "legacyServer.h"
#include "programOptions.h"

int main(int argc, char** argv)
{
    CLI::App app("The reference board's legacy server: confirms connections and echoes all other signals. "
                 "Ends on SIGTERM and SIGINT.",
                 "legacyd");
    std::string runDir;
    merlow::base::addCommonOptions(app, runDir);
    if (const auto status = merlow::base::parseCommandLine(app, argc, argv)) {
        return *status;
    }
    merlow::base::useRunDir(runDir);
    merlow::board::Host host;
    merlow::board::LegacyServer server(host);
    return host.run(server);
}
