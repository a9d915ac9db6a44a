/// Commands one after another through one connection.
#pragma once

#include "bciClient.h"
#include "lineSource.h"
#include "output.h"

#include <string>

namespace merlow::bcictl {

class Session {
public:
    /// `client` is connected. Its indications are printed from here on.
    Session(tools::BciClient& client, Output& output);

    /// Serves the lines of `source` until "quit", the end of the input, or the loss of the unit.
    [[nodiscard]] tools::ExitStatus run(LineSource& source);

    /// Hands out what came from the unit; false, and a word on it, when the unit is lost.
    bool serve();

private:
    /// False after "quit".
    bool runLine(const std::string& line);
    void runCommand(std::vector<std::string> words);

    tools::BciClient& m_client;
    Output& m_output;
    bool m_isLossTold = false;
};

} // namespace merlow::bcictl
