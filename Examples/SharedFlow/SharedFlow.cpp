// SharedFlow.cpp: a file from process to process through packets in shared memory.
//
//     producer ── description of a packet, 100 bytes ──> consumer
//        │    <── one byte: taken ──                        │
//      FILE         payload: nobody copies it             COPY
//
// The producer keeps a packet until the consumer has taken it, so none expires on its way, and has
// at most `window` of them on the way: that, and a pool that is small on purpose, is the
// back-pressure. Meanwhile a third process works on the same pool and is killed in the middle of it;
// what it held comes back.
//
// Ends with 0 if and only if the copy is the file, byte for byte, and the pool is as free as at the
// start.

#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <Infra/Infra3/PrintLog.h>
#include <Infra/Infra3/ThreadLite.h>
#include <Memory/Packet.h>
#include <Memory/PacketManager.h>
#include <Memory/ShareMemory.h>
#include <Memory/SharePacketHelper.h>

using Tarsel::Infra::CThreadLite;
using Tarsel::Memory::CPacket;
using Tarsel::Memory::CPacketManager;
using Tarsel::Memory::CSharePacketHelper;
using Tarsel::Memory::FreeMemFunc;
using Tarsel::Memory::IMemPool;
using Tarsel::Memory::SharePacketArg;

namespace
{

constexpr uint32_t poolSize = 1 << 20;
constexpr uint32_t pageSize = 4096;
constexpr size_t pieceSize = 32 * 1024;
constexpr size_t window = 16;
constexpr size_t descriptionRoom = 256;

/// Travels with each packet.
struct PieceHead
{
    uint64_t sequence;
    uint64_t checksum;
    uint64_t isLast;
};

uint64_t checksumOf(const uint8_t* bytes, size_t count)
{
    uint64_t sum = 0xCBF29CE484222325; // FNV-1a
    for (size_t i = 0; i < count; ++i) {
        sum = (sum ^ bytes[i]) * 0x100000001B3;
    }
    return sum;
}

// The producer -----------------------------------------------------------------------------------

/// A packet of the pool; waits while the pool is dry.
CPacket packetWhenThereIsOne()
{
    for (;;) {
        CPacket packet(pieceSize, sizeof(PieceHead));
        if (packet.valid()) {
            return packet;
        }
        CThreadLite::sleep(1);
    }
}

bool sendPiece(int socket, std::ifstream& file, uint64_t sequence, CPacket& packet, bool* isLast)
{
    packet = packetWhenThereIsOne();
    uint8_t* const payload = packet.getBuffer();
    file.read(reinterpret_cast<char*>(payload), pieceSize);
    const size_t count = static_cast<size_t>(file.gcount());
    *isLast = file.peek() == std::ifstream::traits_type::eof();
    // A packet without bytes cannot be described: an empty end carries one that nobody writes.
    packet.resize(count > 0 ? count : 1);
    const PieceHead head = {sequence, checksumOf(payload, count),
                            *isLast ? 1 + uint64_t{count} : 0};
    memcpy(packet.getExtraData(), &head, sizeof(head));
    CPacket description = CSharePacketHelper::instance()->toDescribePacket(packet);
    return description.valid() && send(socket, description.getBuffer(), description.size(), 0) ==
                                      static_cast<ssize_t>(description.size());
}

int produce(int socket, const std::string& from)
{
    std::ifstream file(from, std::ios::binary);
    CPacket onTheWay[window];
    bool isLast = !file;
    uint64_t sent = 0;
    for (uint64_t taken = 0; !isLast || taken < sent;) {
        if (!isLast && sent - taken < window) {
            if (!sendPiece(socket, file, sent, onTheWay[sent % window], &isLast)) {
                return 1;
            }
            ++sent;
            continue;
        }
        char answer = 0;
        if (recv(socket, &answer, 1, 0) != 1) {
            return 1;
        }
        onTheWay[taken++ % window].reset();
    }
    return file.bad() ? 1 : 0;
}

// The consumer -----------------------------------------------------------------------------------

/// The next packet; not valid when there is none any more, or it is not what was sent.
CPacket receivePiece(int socket, uint64_t sequence, PieceHead* head)
{
    char bytes[descriptionRoom];
    const ssize_t count = recv(socket, bytes, sizeof(bytes), 0);
    if (count <= 0) {
        return CPacket();
    }
    const CPacket description(bytes, static_cast<size_t>(count), FreeMemFunc());
    CPacket packet = CSharePacketHelper::instance()->toOriginalPacket(description);
    if (packet.getExtraSize() != sizeof(*head)) {
        return CPacket();
    }
    memcpy(head, packet.getExtraData(), sizeof(*head));
    const size_t length = head->isLast != 0 ? head->isLast - 1 : packet.size();
    const bool isWhole = head->sequence == sequence && length <= packet.size() &&
                         checksumOf(packet.getBuffer(), length) == head->checksum;
    return isWhole ? packet : CPacket();
}

int consume(int socket, const std::string& to, uint64_t size)
{
    std::ofstream copy(to, std::ios::binary | std::ios::trunc);
    uint64_t bytes = 0;
    int shownQuarters = 0;
    for (uint64_t sequence = 0;; ++sequence) {
        PieceHead head = {};
        CPacket packet = receivePiece(socket, sequence, &head);
        if (!packet.valid()) {
            fprintf(stderr, "SharedFlow: piece %llu is damaged or missing\n",
                    static_cast<unsigned long long>(sequence));
            return 1;
        }
        const size_t length = head.isLast != 0 ? head.isLast - 1 : packet.size();
        copy.write(reinterpret_cast<char*>(packet.getBuffer()),
                   static_cast<std::streamsize>(length));
        packet.reset();
        bytes += length;
        while (size != 0 && bytes * 4 / size > static_cast<uint64_t>(shownQuarters)) {
            printf("%d %%\n", ++shownQuarters * 25);
        }
        if (!copy || send(socket, "", 1, 0) != 1) {
            return 1;
        }
        if (head.isLast != 0) {
            copy.flush();
            printf("%llu packets, %llu bytes, none of them copied between the processes\n",
                   static_cast<unsigned long long>(sequence + 1),
                   static_cast<unsigned long long>(bytes));
            return copy ? 0 : 1;
        }
    }
}

// The one that dies ------------------------------------------------------------------------------

/// Makes, fills, describes and drops packets for ever.
void workUntilKilled(int announce)
{
    CPacket held[4];
    for (uint64_t i = 0;; ++i) {
        CPacket& packet = held[i % 4];
        packet = packetWhenThereIsOne();
        packet.resize(100);
        if (i % 128 == 0) {
            CSharePacketHelper::instance()->toDescribePacket(packet);
        }
        if (i == 1000) {
            (void)!write(announce, "", 1);
        }
    }
}

/// Reclaims what a dead process held: one reference to each block a call.
void reclaim(pid_t dead)
{
    CPacketManager& manager = *CPacketManager::instance();
    IMemPool* const pool = IMemPool::loadMemPool({});
    size_t before = 0;
    do {
        before = manager.getFreeSize();
        pool->freeResourceByPid(dead);
    } while (manager.getFreeSize() != before);
}

// The whole --------------------------------------------------------------------------------------

template <typename Body>
pid_t inProcess(Body body)
{
    fflush(stdout);
    const pid_t process = fork();
    if (process == 0) {
        exit(body());
    }
    return process;
}

int exitCodeOf(pid_t process)
{
    int status = 0;
    return waitpid(process, &status, 0) == process && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool sameContent(const std::string& one, const std::string& other)
{
    std::ifstream first(one, std::ios::binary);
    std::ifstream second(other, std::ios::binary);
    typedef std::istreambuf_iterator<char> Bytes;
    return first && second && std::equal(Bytes(first), Bytes(), Bytes(second), Bytes());
}

/// The pool's names are the machine's: in a namespace of its own this program meets nobody's pool.
bool makePool()
{
    if (unshare(CLONE_NEWIPC) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWIPC) != 0) {
        printf("no IPC namespace of our own to be had; the machine's is used\n");
    }
    CPacketManager::config(CPacketManager::policySharePool);
    SharePacketArg arg;
    arg.type = 1;
    arg.poolSize = poolSize;
    arg.poolType = "ShareMemory";
    arg.pageSize = pageSize;
    arg.orderNum = 0;
    arg.debugMode = 0;
    return CSharePacketHelper::instance()->initSharePacket(&arg);
}

bool flow(const std::string& from, const std::string& to)
{
    int sockets[2] = {};
    int announced[2] = {};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sockets) != 0 || pipe(announced) != 0) {
        perror("SharedFlow");
        return false;
    }
    std::error_code unknown;
    const uint64_t size = std::filesystem::file_size(from, unknown);
    const pid_t producer = inProcess([&] { return close(sockets[1]), produce(sockets[0], from); });
    const pid_t consumer =
        inProcess([&] { return close(sockets[0]), consume(sockets[1], to, unknown ? 0 : size); });
    const pid_t victim = inProcess([&] { return workUntilKilled(announced[1]), 0; });
    close(sockets[0]);
    close(sockets[1]);

    char byte = 0;
    (void)!read(announced[0], &byte, 1); // it is at work
    kill(victim, SIGKILL);
    waitpid(victim, nullptr, 0);
    reclaim(victim);
    printf("process %d was killed in the middle of its work\n", static_cast<int>(victim));
    const bool isProduced = exitCodeOf(producer) == 0;
    return exitCodeOf(consumer) == 0 && isProduced;
}

/// What the dead process had described and nobody will take expires within two seconds.
bool isPoolFree()
{
    CPacketManager& manager = *CPacketManager::instance();
    for (int i = 0; i < 500 && manager.getFreeSize() != manager.getBufferSize(); ++i) {
        CThreadLite::sleep(10);
    }
    return manager.getFreeSize() == manager.getBufferSize();
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: SharedFlow FILE [COPY]\n"
                        "Sends FILE from process to process through shared memory into COPY, or\n"
                        "into a temporary file.\n");
        return 2;
    }
    const std::string from = argv[1];
    const std::string temporary =
        (std::filesystem::temp_directory_path() / ("shared-flow-" + std::to_string(getpid())))
            .string();
    const std::string to = argc == 3 ? argv[2] : temporary;
    signal(SIGPIPE, SIG_IGN);
    if (!std::ifstream(from) || !makePool()) {
        fprintf(stderr, "SharedFlow: cannot open %s, or no pool to be had\n", from.c_str());
        return 1;
    }
    const bool isDone = flow(from, to);
    const bool isSame = sameContent(from, to);
    const bool isFree = isPoolFree();
    printf("the copy is %s the file; %s\n", isSame ? "identical to" : "DIFFERENT from",
           isFree ? "the pool is as free as at the start" : "BLOCKS ARE MISSING");
    IMemPool::deinitMemPool();
    if (argc == 2) {
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
    }
    const bool good = isDone && isSame && isFree;
    printf(good ? "SharedFlow: done\n" : "SharedFlow: FAILED\n");
    return good ? 0 : 1;
}
