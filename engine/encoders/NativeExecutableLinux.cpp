#include <elf.h>

#include <bit>
#include <cstdint>
#include <cstring>

#include "engine/encoders/NativeExecutable.hpp"

namespace tessarin::engine {

namespace {

#if defined(__x86_64__)
constexpr std::uint16_t kNativeMachine = EM_X86_64;
#elif defined(__aarch64__)
constexpr std::uint16_t kNativeMachine = EM_AARCH64;
#elif defined(__i386__)
constexpr std::uint16_t kNativeMachine = EM_386;
#elif defined(__arm__)
constexpr std::uint16_t kNativeMachine = EM_ARM;
#elif defined(__riscv)
constexpr std::uint16_t kNativeMachine = EM_RISCV;
#elif defined(__powerpc64__)
constexpr std::uint16_t kNativeMachine = EM_PPC64;
#elif defined(__s390x__)
constexpr std::uint16_t kNativeMachine = EM_S390;
#elif defined(__mips__)
constexpr std::uint16_t kNativeMachine = EM_MIPS;
#else
#error "Name this architecture's ELF machine"
#endif

constexpr unsigned char kNativeClass = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;
constexpr unsigned char kNativeData =
    std::endian::native == std::endian::little ? ELFDATA2LSB : ELFDATA2MSB;

// e_type and e_machine sit at the same offsets in both classes; the byte order is ours,
// because a header in the other order has already been refused.
std::uint16_t halfWordAt(std::span<const unsigned char> header, std::size_t offset) {
    std::uint16_t value = 0;
    std::memcpy(&value, header.data() + offset, sizeof value);
    return value;
}

}  // namespace

bool isNativeExecutableHeader(std::span<const unsigned char> header) {
    if (header.size() < kExecutableHeaderBytes ||
        std::memcmp(header.data(), ELFMAG, SELFMAG) != 0 || header[EI_CLASS] != kNativeClass ||
        header[EI_DATA] != kNativeData || header[EI_VERSION] != EV_CURRENT) {
        return false;
    }
    const std::uint16_t type = halfWordAt(header, offsetof(Elf64_Ehdr, e_type));
    const std::uint16_t machine = halfWordAt(header, offsetof(Elf64_Ehdr, e_machine));
    return (type == ET_EXEC || type == ET_DYN) && machine == kNativeMachine;
}

}  // namespace tessarin::engine
