#include "panel/GpioBlock.h"

#include "panel/GpioBlockLayout.h"

#define GPIO_WIDEN2(text) L##text
#define GPIO_WIDEN(text) GPIO_WIDEN2(text)

namespace {

// The device: the block at its fixed virtual address.
class CFixedGpioBlock final : public CGpioBlock
{
public:
    DWORD Read(DWORD offset) override { return *Reg(offset); }
    void Write(DWORD offset, DWORD value) override { *Reg(offset) = value; }

private:
    static constexpr UINT_PTR kBase = 0xA5300000;
    static volatile DWORD* Reg(DWORD offset)
    {
        return reinterpret_cast<volatile DWORD*>(kBase + offset);
    }
};

// The desktop: the block file on the device disk, mapped shared.
class CFileGpioBlock final : public CGpioBlock
{
public:
    ~CFileGpioBlock()
    {
        if (m_view != nullptr)
            UnmapViewOfFile(m_view);
    }

    bool Map()
    {
        if (m_view != nullptr)
            return true;
        HANDLE file = CreateFileW(L"\\" GPIO_WIDEN(BRENNOCK_GPIO_BLOCK_FILE), GENERIC_READ | GENERIC_WRITE,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL, nullptr);
        if (file == INVALID_HANDLE_VALUE)
            return false;
        // The mapping grows a new or short file to the block's size with zeros;
        // a simulator that made the file first keeps what it wrote.
        HANDLE mapping = CreateFileMappingW(file, nullptr, PAGE_READWRITE, 0, gpio::kBlockBytes,
                                            nullptr);
        CloseHandle(file);
        if (mapping == nullptr)
            return false;
        m_view = MapViewOfFile(mapping, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, gpio::kBlockBytes);
        CloseHandle(mapping);
        return m_view != nullptr;
    }

    DWORD Read(DWORD offset) override
    {
        if (offset > gpio::kBlockBytes - 4)
            return 0;
        return __atomic_load_n(gpio::BlockWord(m_view, offset), __ATOMIC_ACQUIRE);
    }

    void Write(DWORD offset, DWORD value) override
    {
        if (offset > gpio::kBlockBytes - 4)
            return;
        uint32_t old = __atomic_exchange_n(gpio::BlockWord(m_view, offset), value, __ATOMIC_ACQ_REL);
        int bank;
        if ((bank = gpio::BankAt(gpio::kSetReg, offset)) >= 0) {
            gpio::JournalBits(m_view, bank, value & ~old, gpio::kEdgeHigh);
        } else if ((bank = gpio::BankAt(gpio::kClearReg, offset)) >= 0) {
            gpio::JournalBits(m_view, bank, value & ~old, gpio::kEdgeLow);
        } else if ((bank = gpio::BankAt(gpio::kDirectionReg, offset)) >= 0) {
            gpio::JournalBits(m_view, bank, value & ~old, gpio::kEdgeOutput);
            gpio::JournalBits(m_view, bank, old & ~value, gpio::kEdgeInput);
        }
    }

private:
    void* m_view = nullptr;
};

}  // namespace

CGpioBlock* GpioRegisterBlock()
{
#if defined(_WIN32_WCE)
    static CFixedGpioBlock block;
    return &block;
#else
    static SRWLOCK lock = SRWLOCK_INIT;
    static CFileGpioBlock block;
    AcquireSRWLockExclusive(&lock);
    bool mapped = block.Map();
    ReleaseSRWLockExclusive(&lock);
    return mapped ? &block : nullptr;
#endif
}
