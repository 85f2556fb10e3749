#pragma once

// The seam between the program and WebKitGTK. Linking WebKit pulls in GTK and
// about 170 shared libraries, which take a quarter of a second to map and
// relocate at every start; so everything that calls WebKit lives in a
// loadable module, libstonewall-webkit.so, that the content-blocker services
// load on first use. Commands that never compile a list start without it.
//
// The interface is plain C with a version number, so that a module and a
// program of different builds either agree or refuse each other cleanly.

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" {

// Receives one error: its domain, code and message.
typedef void (*StonewallWebKitErrorSink)(void* context, const char* domain, int64_t code,
                                         const char* message);
// Receives a text result.
typedef void (*StonewallWebKitTextSink)(void* context, const char* text);

struct StonewallWebKitModule {
    uint32_t interfaceVersion;
    // Compiles `source` into the store folder (made when missing) under
    // `identifier` and returns when WebKit is done. 0 on success; otherwise
    // `error` has been called once. Any thread; WebKit itself runs on a
    // thread of the module's.
    int (*compile)(const char* storePath, const char* identifier, const char* source,
                   size_t sourceLength, StonewallWebKitErrorSink error, void* context);
    // Loads a compiled list back; on success `loaded` gets the identifier
    // WebKit reports. Same return and threads as compile.
    int (*lookUp)(const char* storePath, const char* identifier, StonewallWebKitTextSink loaded,
                  StonewallWebKitErrorSink error, void* context);
    // The file of the WebKit library this module runs with, so that lists
    // compiled by another WebKit can be told from ours without loading it.
    const char* (*libraryPath)(void);
    // Where WebKit runs (kWebKitOn...). A program that uses WebKit on its
    // main thread already (a browser) must say so before the first call,
    // since WebKit binds to one thread: compiles and look-ups are then
    // handed to the default main context and waited for, from any other
    // thread; once that context's loop has ended, calls fail at once
    // instead of waiting for it.
    void (*setWebKitThread)(int where);
};

// The module's one exported symbol.
const StonewallWebKitModule* stonewall_webkit_module(void);
}

namespace stonewall::platform::gnulinux {

inline constexpr uint32_t kWebKitModuleInterfaceVersion = 2;
inline constexpr int kWebKitOnOwnThread = 0;
inline constexpr int kWebKitOnMainContext = 1;
inline constexpr int kWebKitMainContextEnded = 2;
inline constexpr const char* kWebKitModuleEntryPoint = "stonewall_webkit_module";
inline constexpr const char* kWebKitModuleFileName = "libstonewall-webkit.so";

// The module's interface, or null with the reason in `failure`. The build
// chooses how: loaded with dlopen (WebKitModuleLoader.cpp), or, in sanitizer
// builds, linked (WebKitModuleLinked.cpp), because LeakSanitizer cannot scan
// the dynamic TLS of a dlopened WebKit and crashes at exit.
const StonewallWebKitModule* openWebKitModule(std::string& failure);

}  // namespace stonewall::platform::gnulinux
