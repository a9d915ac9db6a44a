/// The mailbox and message socket libraries as they are, in a run-time folder of this process's own, beside a
/// peer that puts its packets together by itself.
#include "partTargets.h"

#include "mnet.h"
#include "recordFile.h"
#include "sway.h"
#include "unixSocket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fuzz {

namespace {

/// Far above what a library at rest has left to do.
constexpr unsigned int idleLimit = 20000;

class RunFolder {
public:
    static const std::string& path()
    {
        static const RunFolder folder;
        return folder.m_path;
    }
    ~RunFolder()
    {
        if (getpid() == m_owner) {
            std::error_code error;
            std::filesystem::remove_all(m_path, error);
        }
    }
    RunFolder(const RunFolder&) = delete;
    RunFolder& operator=(const RunFolder&) = delete;

private:
    RunFolder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "merlowFuzzXXXXXX").string();
        require(mkdtemp(pattern.data()) != nullptr, "there is a run-time folder");
        m_path = pattern;
        setenv("MERLOW_RUN_DIR", m_path.c_str(), 1);
        setenv("RUSHLOG_OUT", "/dev/null", 1);
        unsetenv("MERLOW_GROUP");
        setenv("MNET_QUEUE_LIMIT", "1000000", 1);
    }

    std::string m_path;
    pid_t m_owner = getpid();
};

class Socket {
public:
    explicit Socket(int fd = -1) : m_fd(fd) {}
    Socket(Socket&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Socket& operator=(Socket&& other) noexcept
    {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~Socket()
    {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    [[nodiscard]] int get() const { return m_fd; }
    void put(const Bytes& packet) const
    {
        static_cast<void>(send(m_fd, packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
    }
    /// Throws away what has come.
    void drain() const
    {
        static Bytes buffer(300000);
        while (recv(m_fd, buffer.data(), buffer.size(), MSG_DONTWAIT) > 0) {
        }
    }

private:
    int m_fd;
};

std::ptrdiff_t openDescriptors()
{
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return std::distance(begin(entries), end(entries));
}

Socket packetSocket()
{
    return Socket(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
}

/// A process that holds the peer's endpoint and opens its sockets, so that the kernel names it as their
/// owner; this process has them. Lives as long as this one.
class PeerProcess {
public:
    static constexpr std::uint32_t number = 0x7777;

    PeerProcess()
    {
        int ends[2];
        require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "there are sockets");
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(ends[0]);
            serve(ends[1]);
        }
        close(ends[1]);
        m_wire = Socket(ends[0]);
    }
    ~PeerProcess()
    {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    PeerProcess(const PeerProcess&) = delete;
    PeerProcess& operator=(const PeerProcess&) = delete;

    [[nodiscard]] pid_t pid() const { return m_pid; }
    /// A socket that is connected to this endpoint, or, for 0, one that listens in the peer's place.
    [[nodiscard]] Socket open(std::uint32_t endpoint) const
    {
        require(send(m_wire.get(), &endpoint, sizeof(endpoint), 0) == sizeof(endpoint), "the peer is there");
        char byte = 0;
        iovec part{&byte, 1};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        ssize_t got = 0;
        do { // the fuzzer's clock interrupts
            got = recvmsg(m_wire.get(), &message, MSG_CMSG_CLOEXEC);
        } while (got < 0 && errno == EINTR);
        require(got == 1, "the peer is there");
        int fd = -1;
        if (const cmsghdr* const header = CMSG_FIRSTHDR(&message)) {
            std::memcpy(&fd, CMSG_DATA(header), sizeof(fd));
        }
        return Socket(fd);
    }

private:
    [[noreturn]] static void serve(int wire)
    {
        const std::string folder = RunFolder::path() + "/mnet";
        int lockFile = -1;
        for (std::uint32_t endpoint = 0; recv(wire, &endpoint, sizeof(endpoint), 0) == sizeof(endpoint);) {
            if (lockFile < 0) {
                lockFile = ::open((folder + "/endpoints").c_str(), O_RDWR | O_CLOEXEC);
                struct flock lock {};
                lock.l_type = F_WRLCK;
                lock.l_start = number;
                lock.l_len = 1;
                static_cast<void>(fcntl(lockFile, F_SETLK, &lock));
            }
            const int dir = ::open((folder + "/ep").c_str(), O_PATH | O_CLOEXEC);
            const Socket opened = packetSocket();
            if (endpoint == 0) {
                unlinkat(dir, std::to_string(number).c_str(), 0);
                static_cast<void>(merlow::base::bindAt(opened.get(), dir, std::to_string(number)));
                static_cast<void>(listen(opened.get(), 8));
            } else {
                static_cast<void>(merlow::base::connectAt(opened.get(), dir, std::to_string(endpoint)));
            }
            close(dir);
            give(wire, opened.get());
        }
        _exit(0);
    }
    static void give(int wire, int fd)
    {
        char byte = 0;
        iovec part{&byte, 1};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* const header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(fd));
        std::memcpy(CMSG_DATA(header), &fd, sizeof(fd));
        static_cast<void>(sendmsg(wire, &message, MSG_NOSIGNAL));
    }

    pid_t m_pid;
    Socket m_wire;
};

// The wire's numbers, on purpose not taken from the library.
constexpr std::uint32_t hello = 1;
constexpr std::uint32_t welcome = 2;
constexpr std::uint32_t data = 3;
constexpr std::uint32_t kinds = 9;
constexpr std::uint32_t version = 0x6d6e6501;
constexpr std::uint32_t chunk = 131072;
constexpr std::uint32_t peerId = PeerProcess::number << 16U;

class FuzzedMailboxes {
public:
    FuzzedMailboxes(Input& input, const PeerProcess& peer) : m_input(input), m_peer(peer)
    {
        require(mnet_init(8, 0, nullptr, 0) == 0, "the library starts");
        for (mnet_mbox_id_t& mailbox : m_mailboxes) {
            mailbox = mnet_create_mailbox(nullptr, 0);
        }
        m_endpoint = m_mailboxes[0] >> 16U;
        writeLiveFile(0xFF, false);
        m_listener = peer.open(0);
        connect();
    }
    ~FuzzedMailboxes() { mnet_exit(); }
    FuzzedMailboxes(const FuzzedMailboxes&) = delete;
    FuzzedMailboxes& operator=(const FuzzedMailboxes&) = delete;

    void play()
    {
        if (m_input.u8() % 4 != 0) {
            packet(hello, peerId, m_endpoint << 16U, version, 0);
        }
        for (unsigned int i = 0; i < maxSteps && !m_input.empty(); ++i) {
            step(m_input.step());
        }
    }
    /// The peer goes; the library comes to rest, serves on, and gives everything back.
    void leave()
    {
        m_socket = Socket();
        m_answering = Socket();
        m_listener = Socket();
        unsigned int rounds = 0;
        for (; isReadable() && rounds < idleLimit; ++rounds) {
            receive();
        }
        require(rounds < idleLimit, "the library comes to rest");
        const mnet_mbox_id_t own = mnet_create_mailbox("own", 0);
        mnet_msg* msg = mnet_alloc(100, 42);
        require(mnet_send(&msg, own, own) == 0, "service goes on");
        const std::uint32_t filter[] = {1, 42};
        msg = mnet_receive(filter, 0, own);
        require(msg != nullptr && mnet_size(msg) == 100, "service goes on");
        mnet_free(&msg);
    }

private:
    void step(std::uint8_t what)
    {
        switch (what % 16) {
        case 0:
        case 1:
        case 2:
        case 3:
        case 4:
            somePacket(m_socket);
            break;
        case 5:
            m_socket.put(m_input.block());
            break;
        case 6:
            connect();
            if ((what & 0x80U) != 0) {
                packet(hello, peerId, m_endpoint << 16U, version, 0);
            }
            break;
        case 7:
            m_watches[what >> 6U] = mnet_monitor(peerId | (m_input.u8() % 16U), nullptr);
            break;
        case 8:
            mnet_unmonitor(m_watches[what >> 6U]);
            break;
        case 9: {
            mnet_msg* msg = mnet_alloc(4U + m_input.u8() * ((what & 0x80U) != 0 ? 1000U : 1U), 7);
            mnet_send(&msg, peerId | (m_input.u8() % 16U), mailbox());
            break;
        }
        case 10:
            acceptOrAnswer();
            break;
        case 11:
            writeLiveFile(m_input.u8(), (what & 0x80U) != 0);
            break;
        case 12: {
            mnet_mbox_id_t& one = m_mailboxes[what >> 7U];
            mnet_delete_mailbox(one);
            one = mnet_create_mailbox(nullptr, 0);
            break;
        }
        case 13:
            m_socket.drain();
            m_answering.drain();
            break;
        default:
            receive();
            break;
        }
    }
    /// One that may be right, and mostly is but for something.
    void somePacket(const Socket& socket)
    {
        const std::uint8_t how = m_input.u8();
        const std::uint8_t which = m_input.u8();
        const std::uint32_t kind = which < 0x80 ? which % kinds : data;
        const std::uint32_t sender = (how & 0xFU) == 0xFU ? m_input.u32() : peerId | (how & 0x7U);
        const std::uint32_t receiver = (how & 0x30U) == 0x30U ? m_input.u32() : mailbox();
        std::uint32_t size = m_input.u8();
        if (size >= 0xF0) { // pieces of long ones
            size = (size & 1U) != 0 ? chunk : chunk + 300 - size;
        }
        const std::uint32_t value = (how & 0xC0U) == 0       ? size
                                    : (how & 0xC0U) == 0x40U ? chunk + m_input.u8()
                                    : (how & 0xC0U) == 0x80U ? m_input.u8()
                                                             : m_input.u32();
        put(socket, kind, sender, receiver, value, size);
    }
    void packet(std::uint32_t kind, std::uint32_t sender, std::uint32_t receiver, std::uint32_t value,
                std::size_t size)
    {
        put(m_socket, kind, sender, receiver, value, size);
    }
    static void put(const Socket& socket, std::uint32_t kind, std::uint32_t sender, std::uint32_t receiver,
                    std::uint32_t value, std::size_t size)
    {
        const std::uint32_t words[] = {kind, sender, receiver, value};
        Bytes bytes(sizeof(words) + size, 0xA5);
        std::memcpy(bytes.data(), words, sizeof(words));
        socket.put(bytes);
    }
    void connect() { m_socket = m_peer.open(m_endpoint); }
    /// The peer's end of what the library sends to it.
    void acceptOrAnswer()
    {
        if (m_answering.get() < 0) {
            fcntl(m_listener.get(), F_SETFL, O_NONBLOCK);
            m_answering = Socket(accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
            const std::uint32_t words[] = {m_input.u8() % 4 != 0 ? welcome : m_input.u8(), 0, 0, 0};
            Bytes bytes(sizeof(words));
            std::memcpy(bytes.data(), words, sizeof(words));
            m_answering.put(bytes);
        } else if (m_input.u8() % 2 == 0) {
            somePacket(m_answering);
        } else {
            m_answering = Socket();
        }
    }
    void writeLiveFile(std::uint8_t bits, bool isKeeping) const
    {
        const std::string folder = RunFolder::path() + "/mnet/ep/";
        std::array<std::uint8_t, 64 + 8192> content{};
        const int own = open((folder + std::to_string(m_endpoint) + ".live").c_str(), O_RDONLY | O_CLOEXEC);
        require(own >= 0 && read(own, content.data(), 64) == 64, "an endpoint tells which mailboxes it has");
        close(own);
        const std::int32_t pid = m_peer.pid();
        std::memcpy(&content[4], &pid, sizeof(pid));
        content[8] = isKeeping ? 1 : 0;
        content[64] = bits;
        const int peers = open((folder + std::to_string(PeerProcess::number) + ".live").c_str(),
                               O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        require(write(peers, content.data(), content.size()) == static_cast<ssize_t>(content.size()),
                "there is room");
        close(peers);
    }

    mnet_mbox_id_t mailbox() { return m_mailboxes[m_input.u8() % m_mailboxes.size()]; }
    static bool isReadable()
    {
        pollfd ready{mnet_get_fd(), POLLIN, 0};
        return poll(&ready, 1, 0) == 1;
    }
    void receive() const
    {
        mnet_msg* msg = mnet_receive(nullptr, 0, MNET_FROM_ANY);
        if (msg == nullptr) {
            return;
        }
        require(mnet_size(msg) >= sizeof(mnet_msg) && mnet_size(msg) <= 16U << 20U, "a message has a size");
        require(mnet_sender(msg) >> 16U == PeerProcess::number, "a message is from who sent it");
        require(mnet_receiver(msg) >> 16U == m_endpoint, "a message is for one of this process");
        const auto* const bytes = reinterpret_cast<const std::uint8_t*>(msg);
        unsigned int sum = 0; // reads all of it
        for (std::size_t i = 0; i < mnet_size(msg); ++i) {
            sum += bytes[i];
        }
        require(sum <= mnet_size(msg) * 255, "a message has its bytes");
        mnet_free(&msg);
    }

    Input& m_input;
    const PeerProcess& m_peer;
    std::uint32_t m_endpoint = 0;
    std::array<mnet_mbox_id_t, 2> m_mailboxes{};
    std::array<mnet_monitor_id_t, 4> m_watches{};
    Socket m_listener;
    Socket m_socket;    ///< to the library
    Socket m_answering; ///< from it
};

} // namespace

void runMailbox(Input& input)
{
    RunFolder::path();
    static const PeerProcess peer;
    const std::ptrdiff_t before = openDescriptors();
    {
        FuzzedMailboxes mailboxes(input, peer);
        mailboxes.play();
        mailboxes.leave();
    }
    require(openDescriptors() == before, "no descriptor is left");
}

// Message sockets

namespace {

class FuzzedConnection {
public:
    explicit FuzzedConnection(Input& input) : m_input(input)
    {
        m_peer = packetSocket();
        const int dir = open((RunFolder::path() + "/sway").c_str(), O_PATH | O_CLOEXEC);
        require(merlow::base::connectAt(m_peer.get(), dir, "Fuzzed") == 0, "the peer connects");
        close(dir);
        const int smallest = 4096;
        if (input.u8() % 2 == 0) { // so that messages are kept soon
            setsockopt(m_peer.get(), SOL_SOCKET, SO_RCVBUF, &smallest, sizeof(smallest));
        }
        m_server = sway_accept(listener());
        require(m_server != nullptr && sway_set_blocking(m_server, false) == 0, "the connection is taken");
    }
    ~FuzzedConnection() { sway_close(m_server); }
    FuzzedConnection(const FuzzedConnection&) = delete;
    FuzzedConnection& operator=(const FuzzedConnection&) = delete;

    /// Made by the first call, for all connections.
    static sway_socket* listener()
    {
        static sway_socket* const made = [] {
            sway_socket* const s = sway_listen("ux:Fuzzed", 0);
            require(s != nullptr && sway_set_blocking(s, false) == 0, "there is a listener");
            return s;
        }();
        return made;
    }
    void play()
    {
        for (unsigned int i = 0; i < maxSteps && !m_input.empty(); ++i) {
            step(m_input.step());
        }
        m_peer = Socket();
        unsigned int rounds = 0;
        while (receive(maxSize) != 0) {
            require(++rounds < idleLimit, "a connection that the peer has closed ends");
        }
    }

private:
    static constexpr std::size_t maxSize = 262144;

    void step(std::uint8_t what)
    {
        switch (what % 8) {
        case 0:
            m_peer.put(m_input.block());
            break;
        case 1: { // the beginning of a message in parts
            Bytes bytes{0xF5, 's', 'w', 'a', 'y', '-', 'i', 'n', '-', 'p', 'a', 'r', 't', 's', 0xF5, 0xA1};
            const std::uint32_t length = (what & 0x80U) != 0 ? m_input.u32() : m_input.u8() * 16U;
            bytes.resize(bytes.size() + sizeof(length));
            std::memcpy(&bytes[16], &length, sizeof(length));
            if ((what & 0x70U) == 0x70U) {
                bytes.resize(m_input.u8() % 40);
            }
            m_peer.put(bytes);
            break;
        }
        case 2:
            m_peer.put(Bytes(m_input.u8() * 16U, what));
            break;
        case 3: {
            const Bytes message(1U + m_input.u8() * ((what & 0x80U) != 0 ? 1000U : 1U), what);
            const int sent = sway_send(m_server, message.data(), message.size());
            require(sent == 0 || errno == EAGAIN || errno == EPIPE || errno == ECONNRESET,
                    "a message is sent, or why not");
            break;
        }
        case 4:
            m_peer.drain();
            break;
        case 5:
            require(sway_await(m_server, what >> 7U) == 0, "what is waited for can be told");
            break;
        default:
            receive((what & 0x80U) != 0 ? m_input.u8() : maxSize);
            break;
        }
    }
    ssize_t receive(std::size_t capacity)
    {
        // In a block of exactly its size, so that a byte too many is noticed.
        const std::unique_ptr<std::uint8_t[]> buffer(new std::uint8_t[capacity]);
        const ssize_t got = sway_receive(m_server, buffer.get(), capacity);
        require(got <= static_cast<ssize_t>(capacity), "a message fits");
        require(got >= 0 || errno == EAGAIN || errno == EMSGSIZE || errno == EPROTO, "a message, or why not");
        if (got < 0 && errno == EPROTO) {
            m_isOver = true;
        }
        require(!m_isOver || got <= 0, "who breaks the rules is not heard again");
        return got;
    }

    Input& m_input;
    Socket m_peer;
    sway_socket* m_server = nullptr;
    bool m_isOver = false;
};

} // namespace

void runMessageSocket(Input& input)
{
    RunFolder::path();
    FuzzedConnection::listener();
    const std::ptrdiff_t before = openDescriptors();
    FuzzedConnection(input).play();
    require(openDescriptors() == before, "no descriptor is left");
}

/// Another process's trace masks.
void runTraceRecords(Input& input)
{
    using merlow::trace::RecordFile;
    void* const place =
        mmap(nullptr, sizeof(RecordFile), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    require(place != MAP_FAILED, "there is memory");
    auto* const file = static_cast<RecordFile*>(place);
    file->magic = merlow::trace::recordFileMagic;
    file->version = merlow::trace::recordFileVersion;
    file->objectCount = input.u32();
    const std::string name = [&] {
        const Bytes bytes = input.block();
        return std::string(bytes.begin(), bytes.end());
    }();
    const Bytes rest = input.rest();
    std::memcpy(&file->process, rest.data(),
                std::min(rest.size(), sizeof(RecordFile) - offsetof(RecordFile, process)));
    merlow::trace::OpenRecordFile opened(file, "process.1"); // ends the mapping
    require(!opened.processName().empty(), "a process has a name");
    opened.setAllObjectMasks(0x12);
    opened.setProcessMask(0x34);
    require(opened.objects().size() <= merlow::trace::maxObjects, "objects are counted");
    for (const auto& object : opened.objects()) {
        require(object.mask == 0x12, "a mask is what it was set to");
    }
    static_cast<void>(opened.setObjectMask(name, 0x56));
    const std::string bounded(merlow::trace::BoundedName(name).text());
    require(!bounded.empty() && bounded.front() != '.' && bounded.find('/') == std::string::npos,
            "a bounded name is one of a file");
}

const std::vector<Target> targets = {
    {"mailbox", runMailbox},
    {"message-socket", runMessageSocket},
    {"trace-records", runTraceRecords},
    {"board-description", runBoardDescription},
    {"brhd", runBrhd},
    {"legacyd", runLegacyd},
    {"swmd", runSwmd},
    {"load-module", runLoadModule},
    {"software-store", runSoftwareStore},
    {"hardware-log-store", runHardwareLogStore},
    {"client-signals", runClientSignals},
    {"status", runStatus},
    {"words", runWords},
};

} // namespace fuzz
