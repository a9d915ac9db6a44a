#include "host.h"
#include "legacyServer.h"
#include "programOptions.h"

int main(int argc, char** argv)
{
    merlow::base::Syntax app("legacyd", "The reference board's legacy server: confirms connections and "
                                        "echoes all other signals. Ends on SIGTERM and SIGINT.");
    std::string runDir;
    app.addCommonOptions(runDir);
    if (const auto status = app.parse(argc, argv)) {
        return *status;
    }
    merlow::base::useRunDir(runDir);
    merlow::board::Host host;
    merlow::board::LegacyServer server(host);
    return host.run(server);
}
