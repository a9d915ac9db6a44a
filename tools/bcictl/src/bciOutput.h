/// Signals of BCI as bcictl shows them.
#pragma once

#include "bciClient.h"
#include "output.h"

#include <string>

namespace merlow::bcictl {

/// What a confirm means.
struct Told {
    std::string text;     ///< for people
    tools::Fields fields; ///< the same for programs
};

/// "clientRef 1, serverRef 300".
std::string referencesText(const TarnNodeCommonAddressInfoS& references);

/// Now, in UTC with milliseconds: "2026-01-31T12:34:56.789Z".
std::string timeText();

/// The references and then `more`, as members of a JSON object.
tools::Fields withReferences(const TarnNodeCommonAddressInfoS& references, const tools::Fields& more);

/// A signal for people: name, size and references in one line, then what follows the references as a hex
/// view; ends with a newline only behind a view.
std::string describeSignal(const tools::Signal& signal);

/// The same as members of a JSON object.
tools::Fields fieldsOf(const tools::Signal& signal);

void tellConnected(tools::Output& output, const TarnNodeCommonAddressInfoS& references);
/// A fault, temperatures, a restart or a state of the MMI by what it says, any other signal by its bytes.
void tellIndication(tools::Output& output, const tools::Signal& signal);

} // namespace merlow::bcictl
