// Loading software: the store, the start, the blocks with some of them under way, the end.

#include "groups.h"

#include "moduleFile.h"
#include "progress.h"
#include "storeLease.h"

#include "bci/bciCapabilities.h"
#include "bci/bciSoftware.h"

#include <algorithm>
#include <deque>
#include <limits>

namespace merlow::bcictl {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using tools::BciClient;
using tools::ExitStatus;
using tools::Failure;
using tools::Signal;

constexpr std::uint16_t loadingBlocksCapability = 1;
constexpr std::uint32_t maxBlockSize = 8U << 20U; ///< well below what a mailbox takes

/// Bytes under way, half of what the unit keeps for a store that is slower: of more, blocks would get lost.
constexpr std::size_t maxBytesUnderWay = std::size_t{8} << 20U;

/// The blocks that are sent and not acknowledged yet, by their place in the load; on the wire a block has the
/// low 16 bits of that as its number.
class BlocksUnderWay {
public:
    struct Block {
        std::uint64_t place;
        steady_clock::time_point sentAt;
    };

    void add(std::uint64_t block) { m_blocks.push_back({block, steady_clock::now()}); }
    [[nodiscard]] std::size_t count() const { return m_blocks.size(); }
    [[nodiscard]] const Block& oldest() const { return m_blocks.front(); }
    /// Whether the number of this block is another one than those of all that are under way.
    [[nodiscard]] bool hasNumberFor(std::uint64_t block) const
    {
        return m_blocks.empty() || block - oldest().place <= std::numeric_limits<std::uint16_t>::max();
    }

    /// False for a number that is not under way.
    bool acknowledge(std::uint16_t number)
    {
        const auto found = std::find_if(m_blocks.begin(), m_blocks.end(), [number](const Block& block) {
            return static_cast<std::uint16_t>(block.place) == number;
        });
        if (found == m_blocks.end()) {
            return false;
        }
        m_blocks.erase(found);
        return true;
    }

private:
    std::deque<Block> m_blocks;
};

class Load : public Command {
public:
    void addOptions(base::Syntax& app) override
    {
        app.addOption("FILE", m_path,
                      "A load module, or any file: then the header of a load module is put in front of it")
            .required()
            .existingFile();
        app.addOption("--software", m_software, "What it is: product number, '_' and revision")
            .required()
            .check([](const std::string& text) {
                return loadmodule::softwareIdFrom(text) ? std::string()
                                                        : "no product number, '_' and revision: " + text;
            });
        app.addOption(
               "--window", m_window,
               "Blocks that may be under way without an acknowledgement, fewer when that is more than 8 MiB")
            .range(1, 128)
            .showDefault();
    }

    ExitStatus run(BciClient& client, Output& output) override
    {
        auto opened = ModuleFile::open(m_path, *loadmodule::softwareIdFrom(m_software));
        if (const auto* const mistake = std::get_if<std::string>(&opened)) {
            output.misused(*mistake);
            return ExitStatus::usage;
        }
        auto& file = std::get<ModuleFile>(opened);
        StoreLease lease(client);
        std::optional<StepFailure> failure;
        if ((failure = readBlockSize(client)) || (failure = lease.acquire())) {
            return tell(output, *failure);
        }
        failure = start(client);
        const auto begin = steady_clock::now();
        if (!failure && m_isOpen) {
            (void)((failure = sendBlocks(client, output, file, begin)) || (failure = end(client)));
        }
        const auto elapsed = std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
        if (failure) {
            // A load that is left open goes with the store; one who keeps the store could begin no other.
            if (m_isOpen && !lease.isOurs() && !end(client)) {
                failure->failure.text += "; the unit has the whole load module all the same";
            }
            return tell(output, *failure);
        }
        if ((failure = lease.release())) {
            return tell(output, *failure);
        }
        return tellResult(client, output, file.size(), elapsed);
    }

private:
    std::optional<StepFailure> readBlockSize(BciClient& client)
    {
        constexpr char step[] = "reading the capabilities";
        const auto answer = client.request(::toMessage(tools::requestFrom<TarnBcGetCapabilitiesReqS>(client)),
                                           {TARN_BC_GET_CAPABILITIES_CFM});
        if (const auto* const failure = std::get_if<Failure>(&answer)) {
            return failedStep(step, TARN_BC_GET_CAPABILITIES_REQ, *failure);
        }
        const auto size = blockSizeIn(std::get<Signal>(answer));
        if (!size) {
            return failedStep(step, TARN_BC_GET_CAPABILITIES_REQ,
                              {ExitStatus::noAnswer,
                               "the unit names no size of blocks for loading",
                               {},
                               TARN_BC_GET_CAPABILITIES_CFM});
        }
        m_blockSize = *size;
        m_window = std::min(m_window, std::max<std::size_t>(maxBytesUnderWay / m_blockSize, 1));
        return std::nullopt;
    }

    std::optional<StepFailure> start(BciClient& client)
    {
        m_isOpen = true; // also when its answer does not come
        const auto answer =
            client.request(toMessage(tools::requestFrom<TarnBcLmcInitReqS>(client), m_software),
                           {TARN_BC_LMC_INIT_CFM, TARN_BC_LMC_INIT_REJ});
        if (const auto* const failure = std::get_if<Failure>(&answer)) {
            m_isOpen = failure->status != ExitStatus::rejected;
            return failedStep("starting the load", TARN_BC_LMC_INIT_REQ, *failure);
        }
        m_loadStatus = tools::decode<TarnBcLmcInitCfmS>(std::get<Signal>(answer))->loadStatus;
        m_isOpen = m_loadStatus == TarnBcLmcInitCfmS::LOAD_MAY_BEGIN;
        return std::nullopt;
    }

    std::optional<StepFailure> sendBlocks(BciClient& client, Output& output, ModuleFile& file,
                                          steady_clock::time_point begin)
    {
        BlocksUnderWay underWay;
        const auto count = (file.size() + m_blockSize - 1) / m_blockSize;
        auto nextShown = begin;
        while (m_blocks < count || underWay.count() > 0) {
            while (m_blocks < count && underWay.count() < m_window && underWay.hasNumberFor(m_blocks)) {
                if (auto failure = sendBlock(client, file)) {
                    return failure;
                }
                underWay.add(m_blocks++);
            }
            if (auto failure = awaitAcknowledgement(client, underWay, count)) {
                return failure;
            }
            if (const auto now = steady_clock::now(); now >= nextShown) {
                const auto done = std::min((m_blocks - underWay.count()) * m_blockSize, file.size());
                output.transient(
                    progressText(done, file.size(), std::chrono::duration_cast<milliseconds>(now - begin)));
                nextShown = now + milliseconds(100);
            }
        }
        return std::nullopt;
    }

    [[nodiscard]] std::optional<StepFailure> sendBlock(BciClient& client, ModuleFile& file) const
    {
        constexpr auto head = BciRecord<TarnBcLmcDataS>::size;
        auto data = tools::requestFrom<TarnBcLmcDataS>(client);
        data.lmSeqNr = static_cast<std::uint16_t>(m_blocks);
        const auto size = std::min<std::uint64_t>(m_blockSize, file.size() - m_blocks * m_blockSize);
        data.size = static_cast<std::uint32_t>(size);
        hton(data);
        MnetMsgPtr msg = allocMsg(head + size, TARN_BC_LMC_DATA);
        if (msg) {
            auto* const bytes = reinterpret_cast<std::byte*>(msg.get());
            std::memcpy(bytes, &data, head);
            msg->msgNo = TARN_BC_LMC_DATA;
            if (!file.read(std::span(bytes + head, size))) {
                return failedStep("sending the blocks", TARN_BC_LMC_DATA,
                                  {ExitStatus::usage, m_path + " became shorter, or cannot be read", {}});
            }
        }
        if (auto failure = client.post(std::move(msg))) {
            return failedStep("sending the blocks", TARN_BC_LMC_DATA, *failure);
        }
        return std::nullopt;
    }

    [[nodiscard]] std::optional<StepFailure> awaitAcknowledgement(BciClient& client, BlocksUnderWay& underWay,
                                                                  std::uint64_t count) const
    {
        for (;;) {
            const auto answer = client.awaitAnswer(TARN_BC_LMC_DATA, {TARN_BC_LMC_DATA_ACK});
            if (const auto* const failure = std::get_if<Failure>(&answer)) {
                return notAcknowledged(underWay, count, *failure);
            }
            const auto oldest = underWay.oldest();
            const bool isOurs =
                underWay.acknowledge(tools::decode<TarnBcLmcDataAckS>(std::get<Signal>(answer))->lmSeqNr);
            // Those that come in order may be late together, when this process was stopped for a while.
            const bool isOldestLeft = underWay.count() > 0 && underWay.oldest().place == oldest.place;
            if (isOldestLeft && steady_clock::now() > oldest.sentAt + client.timeout()) {
                return notAcknowledged(underWay, count, client.noAnswerTo(TARN_BC_LMC_DATA));
            }
            if (isOurs) {
                return std::nullopt;
            }
        }
    }

    static StepFailure notAcknowledged(const BlocksUnderWay& underWay, std::uint64_t count, Failure failure)
    {
        failure.text = "block " + std::to_string(underWay.oldest().place) + " of " + std::to_string(count) +
                       " was not acknowledged: " + failure.text;
        return {TARN_BC_LMC_DATA, failure};
    }

    std::optional<StepFailure> end(BciClient& client)
    {
        m_isOpen = false; // nobody ends it twice
        const auto answer = client.request(::toMessage(tools::requestFrom<TarnBcLmcEndReqS>(client)),
                                           {TARN_BC_LMC_END_CFM, TARN_BC_LMC_END_REJ});
        if (const auto* const failure = std::get_if<Failure>(&answer)) {
            return failedStep("ending the load", TARN_BC_LMC_END_REQ, *failure);
        }
        if (tools::decode<TarnBcLmcEndCfmS>(std::get<Signal>(answer))->result ==
            TarnBcLmcEndCfmS::COMPLETED) {
            return std::nullopt;
        }
        return failedStep("ending the load", TARN_BC_LMC_END_REQ,
                          {ExitStatus::rejected,
                           "the unit did not take the load module, it gives no reason",
                           {},
                           TARN_BC_LMC_END_CFM});
    }

    ExitStatus tellResult(BciClient& client, Output& output, std::uint64_t size, milliseconds elapsed) const
    {
        const bool wasLoaded = m_loadStatus == TarnBcLmcInitCfmS::LOAD_MAY_BEGIN;
        const auto references =
            withReferences(client.references(), {{"software", m_software}, {"loadStatus", m_loadStatus}});
        if (!wasLoaded) {
            output.done(TARN_BC_LMC_INIT_REQ, TARN_BC_LMC_INIT_CFM,
                        m_software + (m_loadStatus == TarnBcLmcInitCfmS::RUNNING ? " runs" : " is stored") +
                            " on the unit already; nothing was loaded",
                        references);
            return ExitStatus::done;
        }
        auto fields = references;
        fields.update({{"bytes", size},
                       {"blocks", m_blocks},
                       {"blockSize", m_blockSize},
                       {"milliseconds", elapsed.count()}});
        char seconds[32];
        (void)std::snprintf(seconds, sizeof(seconds), "%.1f", static_cast<double>(elapsed.count()) / 1000);
        output.done(TARN_BC_LMC_END_REQ, TARN_BC_LMC_END_CFM,
                    "loaded " + m_software + ": " + sizeText(size) + " in " + std::to_string(m_blocks) +
                        (m_blocks == 1 ? " block, " : " blocks, ") + seconds + " s, " +
                        rateText(size, elapsed),
                    fields);
        return ExitStatus::done;
    }

    std::string m_path;
    std::string m_software;
    std::size_t m_window = 16; ///< measured: more gains nothing
    std::uint32_t m_blockSize = 0;
    std::uint64_t m_blocks = 0; ///< that were sent
    std::uint16_t m_loadStatus = 0;
    bool m_isOpen = false; ///< the unit may wait for blocks, or for the end
};

} // namespace

std::optional<std::uint32_t> blockSizeIn(const Signal& capabilities)
{
    const auto cfm = tools::decode<TarnBcGetCapabilitiesCfmS>(capabilities);
    if (!cfm) {
        return std::nullopt;
    }
    const auto records = std::span(capabilities.bytes).subspan(BciRecord<TarnBcGetCapabilitiesCfmS>::size);
    constexpr auto recordSize = BciRecord<TarnBcBoardCapabilityS>::size;
    const auto count = std::min<std::size_t>(cfm->numberOfBoardCapabilities, records.size() / recordSize);
    for (std::size_t i = 0; i < count; ++i) {
        TarnBcBoardCapabilityS record;
        std::memcpy(&record, records.data() + i * recordSize, recordSize);
        ntoh(record);
        if (record.capabilityNumber == loadingBlocksCapability) {
            const auto size = contentOf<TarnBcLoadingBlocksS>(record).blockSize;
            return size > 0 && size <= maxBlockSize ? std::optional(size) : std::nullopt;
        }
    }
    return std::nullopt;
}

std::unique_ptr<Command> makeLoad()
{
    return std::make_unique<Load>();
}

} // namespace merlow::bcictl
