/// Signals of link supervision.
#pragma once

#include "bci/bciCommon.h"

using TarnBcLinkSupervisionReqS = TarnBcPlainS<TARN_BC_LINK_SUPERVISION_REQ>;
using TarnBcLinkSupervisionRejS = TarnBcRejS<TARN_BC_LINK_SUPERVISION_REJ>;
