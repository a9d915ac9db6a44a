/// The reference neighbours in memory, and what they read.
#include "boardDescription.h"
#include "brhd.h"
#include "control.h"
#include "fakeOutbox.h"
#include "fakeStateStore.h"
#include "legacyServer.h"
#include "loadModule.h"
#include "partTargets.h"
#include "restartOrder.h"
#include "swmd.h"
#include "swmdTest.h"

#include <algorithm>
#include <memory>

namespace fuzz {

using namespace merlow;
using namespace merlow::board;

namespace {

constexpr MailboxId briMailbox = 0x10;
constexpr MailboxId bmmiMailbox = 0x11;
constexpr MailboxId legacyMailbox = 0x40;
constexpr MailboxId firstClient = 0x20;

BytesView viewOf(const fuzz::Bytes& bytes)
{
    return std::as_bytes(std::span(bytes));
}

/// A control request, if it is one, and its answer.
void ask(Service& service, const fuzz::Bytes& text)
{
    board::Bytes message;
    putHost32(message, controlRequest);
    putNetwork32(message, 1);
    putBytes(message, viewOf(text));
    if (const auto request = decodeControl(message, controlRequest)) {
        const ControlAnswer answer = serveControl(service, request->body);
        const auto read =
            decodeControl(encodeControl(controlAnswer, request->ref, toJson(answer)), controlAnswer);
        require(read && answerFromJson(read->body), "an answer is one");
    }
}

/// Number, both references, any body; or any bytes.
board::Bytes frameFrom(Input& input, const Schema& schema)
{
    board::Bytes frame;
    const std::uint8_t how = input.how();
    if (how >= 0xF0) {
        putBytes(frame, viewOf(input.block()));
        return frame;
    }
    putHost32(frame, input.message(schema).number);
    putNetwork32(frame, input.u8());
    putNetwork32(frame, (how & 1U) != 0 ? input.u8() : 1U);
    putBytes(frame, viewOf(input.body(frame.size())));
    return frame;
}

} // namespace

void runBoardDescription(Input& input)
{
    const std::string text = input.restAsText();
    const LoadedBoard loaded = parseBoardDescription(text, "file");
    if (!loaded.error.empty()) {
        require(loaded.error.starts_with("file"), "a mistake names the file");
        return;
    }
    const std::string written =
        toJson(loaded.description).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    const LoadedBoard again = parseBoardDescription(written, "file");
    require(again.error.empty(), "what was written can be read");
    require(again.description == loaded.description, "what was read is what was written");
}

void runBrhd(Input& input)
{
    const Schema& bri = briSchema();
    const Schema& bmmi = bmmiSchema();
    test::FakeStateStore faults;
    test::FakeStateStore order;
    test::FakeStateStore carriedOut;
    test::FakeOutbox outbox;
    for (test::FakeStateStore* store : {&faults, &order, &carriedOut}) {
        const fuzz::Bytes left = input.block();
        store->text.assign(left.begin(), left.end());
    }
    Brhd brhd(
        {}, [] { return std::int64_t{1'000'000'789}; }, {faults, order, carriedOut, SqliteDatabase::inMemory},
        outbox);
    brhd.attach("BriServer", briMailbox);
    brhd.attach("BmmiServer", bmmiMailbox);
    brhd.begin();
    for (const MailboxId server : {briMailbox, bmmiMailbox}) { // the first client is connected to both
        board::Bytes frame;
        putHost32(frame, (server == briMailbox ? bri : bmmi).front().number);
        putNetwork32(frame, 1);
        putNetwork32(frame, 0);
        putBytes(frame, std::as_bytes(std::span("\x08\x01", 2)));
        brhd.receive({firstClient, server, frame});
    }
    for (unsigned int i = 0; i < maxSteps && !input.empty(); ++i) {
        const std::uint8_t step = input.step();
        const MailboxId client = firstClient + (step >> 6U);
        switch (step % 8) {
        case 0:
        case 1:
        case 2: {
            const test::HeapMessage message(frameFrom(input, bri));
            brhd.receive({client, briMailbox, message.bytes()});
            break;
        }
        case 3:
        case 4: {
            const test::HeapMessage message(frameFrom(input, bmmi));
            brhd.receive({client, bmmiMailbox, message.bytes()});
            break;
        }
        case 5:
            ask(brhd, input.block());
            break;
        case 6:
            outbox.advance(std::chrono::milliseconds(input.u8() * 100));
            break;
        default:
            brhd.mailboxGone(client);
            break;
        }
    }
    for (unsigned int i = 0; i < 4; ++i) {
        brhd.mailboxGone(firstClient + i);
    }
    const auto status = brhd.status();
    require(status.at("bri").at("connections").empty() && status.at("bmmi").at("connections").empty(),
            "a connection goes with its client");
}

void runLegacyd(Input& input)
{
    test::FakeOutbox outbox;
    LegacyServer server(outbox);
    server.attach("LegacyMerlow", legacyMailbox);
    for (unsigned int i = 0; i < maxSteps && !input.empty(); ++i) {
        const std::uint8_t step = input.step();
        const MailboxId client = firstClient + (step >> 6U);
        switch (step % 4) {
        case 0:
        case 1: {
            const test::HeapMessage message(frameFrom(input, bciSchema()));
            server.receive({client, legacyMailbox, message.bytes()});
            break;
        }
        case 2:
            ask(server, input.block());
            break;
        default:
            server.mailboxGone(client);
            break;
        }
    }
    for (unsigned int i = 0; i < 4; ++i) {
        server.mailboxGone(firstClient + i);
    }
    require(server.status().at("connections").empty(), "a connection goes with its client");
}

namespace {

class SilentPeers : public SwmPeers {
public:
    void send(ConnectionId /*to*/, BytesView /*frame*/) override {}
    void sendAfter(std::chrono::milliseconds /*delay*/, ConnectionId /*to*/, board::Bytes /*frame*/) override
    {
    }
    void close(ConnectionId /*connection*/) override {}
    bool logs(LogLevel /*level*/) const override { return true; }
    void log(LogLevel /*level*/, const char* /*file*/, unsigned /*line*/,
             const std::string& /*text*/) override
    {
    }
};

board::Bytes swmiFrameFrom(Input& input, const Schema& schema)
{
    board::Bytes frame;
    if (input.how() >= 0xF0) {
        putBytes(frame, viewOf(input.block()));
        return frame;
    }
    putNetwork32(frame, input.message(schema).number);
    putNetwork32(frame, input.u8());
    putBytes(frame, viewOf(input.body()));
    return frame;
}

} // namespace

void runSwmd(Input& input)
{
    test::MemoryDisk disk;
    SilentPeers peers;
    SwStore store({2, loadmodule::SoftwareId{"QXR1/1", "R1A"}, {}}, disk.files, disk.inventory);
    std::vector<std::string> said;
    require(store.open(said).empty(), "the store opens");
    Swmd swmd({}, store, peers);
    for (ConnectionId connection = 1; connection <= 2; ++connection) {
        swmd.server().connected(connection);
        board::Bytes frame;
        putNetwork32(frame, swm::ConnEstablishReq::MESSAGE_NUMBER);
        putNetwork32(frame, 1);
        putBytes(frame, std::as_bytes(std::span("\x08\x01", 2)));
        swmd.server().receive(connection, frame);
    }
    ConnectionId last = 2;
    for (unsigned int i = 0; i < maxSteps && !input.empty(); ++i) {
        const std::uint8_t step = input.step();
        const ConnectionId connection = last - (step >> 7U);
        switch (step % 8) {
        case 0:
            ask(swmd, input.block());
            break;
        case 1:
            swmd.server().ended(connection);
            break;
        case 2:
            swmd.server().connected(++last);
            break;
        case 3: { // a whole load module, piece by piece as the input has it
            const board::Bytes module = test::moduleOf({"QXR1/1", "R1B"}, "content");
            swm::PushLoadData data;
            data.set_ticket_number(input.u8());
            data.set_data(std::string(reinterpret_cast<const char*>(module.data()), module.size()));
            board::Bytes frame;
            putNetwork32(frame, swm::PushLoadData::MESSAGE_NUMBER);
            putNetwork32(frame, 1);
            const std::string body = data.SerializeAsString();
            putBytes(frame, std::as_bytes(std::span(body)));
            swmd.server().receive(connection, frame);
            break;
        }
        default: {
            const test::HeapMessage message(swmiFrameFrom(input, swmiSchema()));
            swmd.server().receive(connection, message.bytes());
            break;
        }
        }
    }
    for (ConnectionId connection = 1; connection <= last; ++connection) {
        swmd.server().ended(connection);
    }
    require(!store.isLoading(), "a load goes with its client");
    for (const auto& module : store.modules()) {
        require(module.status == StoredModule::Status::valid, "what is left in the store is whole");
    }
}

void runLoadModule(Input& input)
{
    using namespace loadmodule;
    const std::size_t pieceSize = 1U + input.u8();
    fuzz::Bytes whole = input.rest();
    const auto bytes = viewOf(whole);
    const auto decoded = decode(bytes.first(std::min(bytes.size(), headerSize)));
    require(decoded.header.has_value() == decoded.error.empty(), "a header, or what is wrong");
    if (!decoded.header) {
        return;
    }
    require(decode(encode(*decoded.header)).header == decoded.header, "a header can be written again");
    const std::string text = toText(decoded.header->software);
    require(softwareIdFrom(text) == decoded.header->software, "an identity can be read again");
    Sha256 sha;
    sha.add(bytes.subspan(headerSize));
    const bool isRight =
        decoded.header->length == bytes.size() - headerSize && sha.finish() == decoded.header->digest;
    LoadModuleCheck check(decoded.header->software);
    for (auto rest = bytes; !rest.empty();) {
        const auto piece = rest.first(std::min(rest.size(), pieceSize));
        check.add(piece);
        rest = rest.subspan(piece.size());
    }
    require(check.finish() == isRight, "a module is right as its header says");
}

} // namespace fuzz
