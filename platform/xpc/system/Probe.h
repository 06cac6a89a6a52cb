#pragma once

#include <cstdint>
#include <type_traits>

// Places in the program that a tracer finds by name, of the provider "velto": docs/tracing.md lists them. Each is one
// instruction that does nothing, and a note in the program's file that says where it is and which registers hold its
// arguments; a tracer puts a breakpoint there while it looks. So an argument is something already at hand: a number, a
// pointer, the bytes of a text that ends in zero.
//
// The notes have the form that tracers of Linux read (owner "stapsdt", type 3): the addresses of the instruction, of a
// fixed byte from which the distance tells whether the file was relocated, and of a counter (here none); then provider,
// name and arguments as texts, of which each argument is its size, "@", and the operand in the assembler's spelling.
// On other processors there are no probes.

namespace velto::system {

template <class T>
std::uint64_t probeArgument(T value) noexcept {
  if constexpr (std::is_pointer_v<T>) {
    return reinterpret_cast<std::uintptr_t>(value);
  } else {
    return static_cast<std::uint64_t>(value);
  }
}

}  // namespace velto::system

#if defined(__ELF__) && (defined(__x86_64__) || (defined(__aarch64__) && defined(__LP64__)))

// "?": in the group of the code around it, so that both stay or go together.
#define VELTO_PROBE_NOTE(name, arguments)                                     \
  "661: nop\n"                                                                \
  ".pushsection .note.stapsdt, \"?\", \"note\"\n"                             \
  ".balign 4\n"                                                               \
  ".4byte 663f - 662f\n" /* bytes of the owner's name */                      \
  ".4byte 665f - 664f\n" /* bytes of the description  */                      \
  ".4byte 3\n"                                                                \
  "662: .asciz \"stapsdt\"\n"                                                 \
  "663: .balign 4\n"                                                          \
  "664: .8byte 661b\n"                                                        \
  ".8byte _.stapsdt.base\n"                                                   \
  ".8byte 0\n"                                                                \
  ".asciz \"velto\"\n"                                                        \
  ".asciz \"" #name                                                           \
  "\"\n"                                                                      \
  ".asciz \"" arguments                                                       \
  "\"\n"                                                                      \
  "665: .balign 4\n"                                                          \
  ".popsection\n"                                                             \
  ".ifndef _.stapsdt.base\n"                                                  \
  ".pushsection .stapsdt.base, \"aG\", \"progbits\", .stapsdt.base, comdat\n" \
  ".weak _.stapsdt.base\n"                                                    \
  ".hidden _.stapsdt.base\n"                                                  \
  "_.stapsdt.base: .space 1\n"                                                \
  ".size _.stapsdt.base, 1\n"                                                 \
  ".popsection\n"                                                             \
  ".endif\n"

#define VELTO_PROBE4(name, a, b, c, d)                                                                    \
  __asm__ volatile(VELTO_PROBE_NOTE(name, "8@%0 8@%1 8@%2 8@%3")::"r"(::velto::system::probeArgument(a)), \
                   "r"(::velto::system::probeArgument(b)), "r"(::velto::system::probeArgument(c)),        \
                   "r"(::velto::system::probeArgument(d)))
#define VELTO_PROBE6(name, a, b, c, d, e, f)                                                                        \
  __asm__ volatile(VELTO_PROBE_NOTE(name, "8@%0 8@%1 8@%2 8@%3 8@%4 8@%5")::"r"(::velto::system::probeArgument(a)), \
                   "r"(::velto::system::probeArgument(b)), "r"(::velto::system::probeArgument(c)),                  \
                   "r"(::velto::system::probeArgument(d)), "r"(::velto::system::probeArgument(e)),                  \
                   "r"(::velto::system::probeArgument(f)))

#else

#define VELTO_PROBE4(name, a, b, c, d) static_cast<void>(0)
#define VELTO_PROBE6(name, a, b, c, d, e, f) static_cast<void>(0)

#endif
