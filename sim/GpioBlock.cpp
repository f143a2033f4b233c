#include "sim/GpioBlock.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sim {

GpioBlockFile::~GpioBlockFile()
{
    Close();
}

bool GpioBlockFile::Open(const std::string& path, std::string* error)
{
    Close();
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0644);
    if (fd < 0) {
        if (error)
            *error = path + ": " + std::strerror(errno);
        return false;
    }
    struct stat st;
    if (::fstat(fd, &st) != 0 ||
        (st.st_size < static_cast<off_t>(gpio::kBlockBytes) && ::ftruncate(fd, gpio::kBlockBytes) != 0)) {
        if (error)
            *error = path + ": " + std::strerror(errno);
        ::close(fd);
        return false;
    }
    void* base = ::mmap(nullptr, gpio::kBlockBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (base == MAP_FAILED) {
        if (error)
            *error = path + ": mmap: " + std::strerror(errno);
        return false;
    }
    m_base = base;
    return true;
}

void GpioBlockFile::Close()
{
    if (m_base != nullptr) {
        ::munmap(m_base, gpio::kBlockBytes);
        m_base = nullptr;
    }
}

uint32_t GpioBlockFile::Word(uint32_t offset) const
{
    return __atomic_load_n(gpio::BlockWord(m_base, offset), __ATOMIC_ACQUIRE);
}

bool GpioBlockFile::Level(unsigned line) const
{
    return (Word(gpio::kLevelReg[gpio::BankOf(line)]) & gpio::BitOf(line)) != 0;
}

void GpioBlockFile::SetLevel(unsigned line, bool high)
{
    uint32_t* reg = gpio::BlockWord(m_base, gpio::kLevelReg[gpio::BankOf(line)]);
    if (high)
        __atomic_fetch_or(reg, gpio::BitOf(line), __ATOMIC_ACQ_REL);
    else
        __atomic_fetch_and(reg, ~gpio::BitOf(line), __ATOMIC_ACQ_REL);
}

GpioBlockFile::Drive GpioBlockFile::Output(unsigned line) const
{
    const uint32_t bank = gpio::BankOf(line);
    const uint32_t bit = gpio::BitOf(line);
    if (Word(gpio::kSetReg[bank]) & bit)
        return Drive::kHigh;
    if (Word(gpio::kClearReg[bank]) & bit)
        return Drive::kLow;
    return Drive::kNever;
}

bool GpioBlockFile::IsOutput(unsigned line) const
{
    return (Word(gpio::kDirectionReg[gpio::BankOf(line)]) & gpio::BitOf(line)) != 0;
}

uint32_t GpioBlockFile::JournalCount() const
{
    return Word(gpio::kJournalCount);
}

GpioEdgeReader::GpioEdgeReader(const GpioBlockFile& block)
    : m_block(block), m_next(block.JournalCount())
{
}

bool GpioEdgeReader::Next(Edge* edge, uint32_t* lost, unsigned stuckPolls)
{
    for (;;) {
        const uint32_t count = m_block.JournalCount();
        const int32_t ahead = static_cast<int32_t>(count - m_next);
        if (ahead <= 0)
            return false;
        if (ahead > static_cast<int32_t>(gpio::kJournalSlots)) {
            // The ring has gone round past what was not read yet.
            const uint32_t skip = static_cast<uint32_t>(ahead) - gpio::kJournalSlots;
            *lost += skip;
            m_next += skip;
            m_pendingPolls = 0;
        }
        const uint64_t slot = __atomic_load_n(gpio::JournalSlot(m_block.Base(), m_next), __ATOMIC_ACQUIRE);
        const int32_t age = static_cast<int32_t>(gpio::EdgeSerial(slot) - (m_next + 1));
        if (age == 0) {
            edge->line = gpio::EdgeLine(slot);
            edge->kind = gpio::EdgeKindOf(slot);
            ++m_next;
            m_pendingPolls = 0;
            return true;
        }
        if (age > 0) {
            // Overwritten by a later round of the ring while being read.
            ++*lost;
            ++m_next;
            m_pendingPolls = 0;
            continue;
        }
        // Reserved by a writer that has not stored it yet.
        if (++m_pendingPolls > stuckPolls) {
            ++*lost;
            ++m_next;
            m_pendingPolls = 0;
            continue;
        }
        return false;
    }
}

void GpioEdgeReader::Drain(const std::function<void(const Edge& edge)>& onEdge,
                           const std::function<void(uint32_t lost)>& onLost)
{
    Edge e;
    uint32_t lost = 0;
    while (Next(&e, &lost)) {
        if (lost != 0) {
            onLost(lost);
            lost = 0;
        }
        onEdge(e);
    }
    if (lost != 0)
        onLost(lost);
}

const char* EdgeKindName(uint32_t kind)
{
    switch (kind) {
    case gpio::kEdgeLow: return "low";
    case gpio::kEdgeHigh: return "high";
    case gpio::kEdgeInput: return "input";
    case gpio::kEdgeOutput: return "output";
    default: return "?";
    }
}

}  // namespace sim
