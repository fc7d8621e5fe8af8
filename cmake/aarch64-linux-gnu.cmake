# Debian's cross compiler and multiarch libraries for AArch64; `scripts/setup aarch64` installs
# them. What is built runs under qemu's user-mode emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)

# Devices have pages of 4 or 64 KiB, and what is read-only after relocation must end with a page. To
# reach that the GNU linker pads the file by up to 64 KiB, nearly the library's own size; LLVM's
# pads the address space only.
set(CMAKE_SHARED_LINKER_FLAGS_INIT
    "-B/usr/lib/llvm-14/bin -fuse-ld=lld -Wl,-z,common-page-size=65536 -Wl,-O2")

set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
