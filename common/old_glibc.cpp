// Makes release builds start on hosts with an old C library: functions of which the newer versions
// do the same keep the oldest one, and what an old library lacks is here. The linker's --wrap (see
// CMakeLists.txt) brings all references here, also those of the C++ library inside the programs.
// A function that a program does not need is dropped from it.

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdint>

#if defined(__x86_64__)
#define OLDEST "GLIBC_2.2.5"
#define OLDEST_SETCLOCK "GLIBC_2.3.3"
constexpr int kStatVersion = 1;
#elif defined(__arm__)
#define OLDEST "GLIBC_2.4"
#define OLDEST_SETCLOCK "GLIBC_2.4"
constexpr int kStatVersion = 3;
#else
#error "Set ORVIN_STATIC_RUNTIME to OFF, or add the oldest versions on this architecture."
#endif

// `old_NAME` is that version of the C library's NAME.
#define DECLARE_OLD(version, result, name, parameters) \
    result old_##name parameters;                      \
    __asm__(".symver old_" #name "," #name "@" version)
#define KEEP(version, result, name, parameters, arguments) \
    DECLARE_OLD(version, result, name, parameters);        \
    result __wrap_##name parameters {                      \
        return old_##name arguments;                       \
    }

// The names are those of the C library.
// NOLINTBEGIN(bugprone-reserved-identifier, readability-identifier-naming)
extern "C" {

// 0: several threads may run, which is always right.
char __libc_single_threaded = 0;

KEEP(OLDEST, int, pthread_once, (pthread_once_t * once, void (*routine)()), (once, routine))
KEEP(OLDEST, int, pthread_create,
     (pthread_t * thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument),
     (thread, attributes, start, argument))
KEEP(OLDEST, int, pthread_join, (pthread_t thread, void** result), (thread, result))
KEEP(OLDEST, int, pthread_detach, (pthread_t thread), (thread))
KEEP(OLDEST, int, pthread_sigmask, (int how, const sigset_t* set, sigset_t* old), (how, set, old))
KEEP(OLDEST, int, pthread_mutexattr_init, (pthread_mutexattr_t * attributes), (attributes))
KEEP(OLDEST, int, pthread_mutexattr_destroy, (pthread_mutexattr_t * attributes), (attributes))
KEEP(OLDEST, int, pthread_mutexattr_settype, (pthread_mutexattr_t * attributes, int type),
     (attributes, type))
KEEP(OLDEST_SETCLOCK, int, pthread_condattr_setclock,
     (pthread_condattr_t * attributes, clockid_t clock), (attributes, clock))
KEEP(OLDEST, int, __pthread_key_create, (pthread_key_t * key, void (*destructor)(void*)),
     (key, destructor))
KEEP(OLDEST, void*, dlsym, (void* handle, const char* name), (handle, name))
KEEP(OLDEST, char*, dlerror, (), ())

// An old library has these as functions with the version of the structure.
DECLARE_OLD(OLDEST, int, __xstat64, (int version, const char* path, struct stat64* status));
DECLARE_OLD(OLDEST, int, __lxstat64, (int version, const char* path, struct stat64* status));
DECLARE_OLD(OLDEST, int, __fxstat64, (int version, int file, struct stat64* status));
int __wrap_stat64(const char* path, struct stat64* status) {
    return old___xstat64(kStatVersion, path, status);
}
int __wrap_lstat64(const char* path, struct stat64* status) {
    return old___lxstat64(kStatVersion, path, status);
}
int __wrap_fstat64(int file, struct stat64* status) {
    return old___fxstat64(kStatVersion, file, status);
}
#if defined(__x86_64__)  // where the structures with and without 64 are the same
int __wrap_stat(const char* path, struct stat* status) {
    return __wrap_stat64(path, reinterpret_cast<struct stat64*>(status));
}
int __wrap_lstat(const char* path, struct stat* status) {
    return __wrap_lstat64(path, reinterpret_cast<struct stat64*>(status));
}
#endif

// The programs do not lock ranges of a file, the only command for which fcntl64 is another
// function.
DECLARE_OLD(OLDEST, int, fcntl, (int file, int command, ...));
int __wrap_fcntl64(int file, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return old_fcntl(file, command, argument);
}

// Before 2.34, the C library does not run the constructors of a program by itself.
void _init();
using Initialiser = void (*)(int argc, char** argv, char** environment);
extern Initialiser __init_array_start[] __attribute__((visibility("hidden")));
extern Initialiser __init_array_end[] __attribute__((visibility("hidden")));
static void initialise(int argc, char** argv, char** environment) {
    _init();
    for (Initialiser* run = __init_array_start; run != __init_array_end; ++run) {
        (*run)(argc, argv, environment);
    }
}
using Main = int (*)(int argc, char** argv, char** environment);
DECLARE_OLD(OLDEST, int, __libc_start_main,
            (Main main, int argc, char** argv, Initialiser initialiser, void (*finish)(),
             void (*finishLoader)(), void* stackEnd));
int __wrap___libc_start_main(Main main, int argc, char** argv, Initialiser /*none*/,
                             void (*finish)(), void (*finishLoader)(), void* stackEnd) {
    return old___libc_start_main(main, argc, argv, initialise, finish, finishLoader, stackEnd);
}

#if defined(__x86_64__) && defined(DLFO_STRUCT_HAS_EH_DBASE)
// The unwinder of exceptions asks for the table of the program or library that has the address.
static int findTable(dl_phdr_info* module, std::size_t /*size*/, void* found) {
    auto* const object = static_cast<dl_find_object*>(found);
    const auto address = reinterpret_cast<std::uintptr_t>(object->dlfo_map_start);
    bool isIt = false;
    std::uintptr_t table = 0;
    for (int i = 0; i < module->dlpi_phnum; ++i) {
        const ElfW(Phdr)& header = module->dlpi_phdr[i];
        const std::uintptr_t start = module->dlpi_addr + header.p_vaddr;
        isIt |= header.p_type == PT_LOAD && address >= start && address - start < header.p_memsz;
        table = header.p_type == PT_GNU_EH_FRAME ? start : table;
    }
    object->dlfo_eh_frame = reinterpret_cast<void*>(table);  // NOLINT(performance-no-int-to-ptr)
    return isIt && table != 0 ? 1 : 0;
}
int __wrap__dl_find_object(void* address, dl_find_object* found) {
    found->dlfo_map_start = address;
    return dl_iterate_phdr(findTable, found) == 1 ? 0 : -1;
}
#endif

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier, readability-identifier-naming)
