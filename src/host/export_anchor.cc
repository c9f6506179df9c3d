// The shared library is lumo_core linked whole; this file only gives CMake a source to compile.
