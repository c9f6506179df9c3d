// Marks the classes and functions that form the library's public surface. Everything else
// stays inside the shared library.
#pragma once

#if defined(_WIN32)
#if defined(LUMO_STATIC)
#define LUMO_API
#elif defined(LUMO_BUILDING_LIBRARY)
#define LUMO_API __declspec(dllexport)
#else
#define LUMO_API __declspec(dllimport)
#endif
#else
#define LUMO_API __attribute__((visibility("default")))
#endif
