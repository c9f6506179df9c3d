# The front door. `make test` sets everything up on a fresh Debian machine and runs the suite
# twice: a normal build and a sanitizer build (AddressSanitizer + UndefinedBehaviorSanitizer).
JOBS        ?= $(shell nproc)
BUILD       ?= build
ASAN_BUILD  ?= build-asan
TSAN_BUILD  ?= build-tsan
FUZZ_BUILD  ?= build-fuzz
FUZZ_SECONDS ?= 300
WIN_BUILD   ?= build-win
# The cross-built Windows dependencies live outside the source tree and survive clean clones.
WINDEPS     ?= $(HOME)/.cache/lumo-windeps
CMAKE_GEN   := -G Ninja

export ASAN_OPTIONS  ?= halt_on_error=1:detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS ?= halt_on_error=1:print_stacktrace=1
export TSAN_OPTIONS  ?= halt_on_error=1:second_deadlock_stack=1
export LUMO_LOG_STDERR ?= 0
export WINEDEBUG ?= -all
export WINEPREFIX ?= $(HOME)/.cache/lumo-wine
# No sound card is needed: without a driver waveOutOpen fails quietly instead of hanging.
export WINEDLLOVERRIDES ?= winealsa.drv=d

.PHONY: all deps build asan tsan windows windeps test check check-windows demo fuzz fuzz-run bench clean

all: build

deps:
	scripts/install-deps

build: deps
	cmake -S . -B $(BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD) -j $(JOBS)

asan: deps
	cmake -S . -B $(ASAN_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DLUMO_SANITIZE=ON -DLUMO_BENCH=OFF
	cmake --build $(ASAN_BUILD) -j $(JOBS)

# ThreadSanitizer build and its suite; not part of `make test` (it doubles the suite's time).
tsan: deps
	cmake -S . -B $(TSAN_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMO_TSAN=ON -DLUMO_BENCH=OFF
	cmake --build $(TSAN_BUILD) -j $(JOBS)
	cd $(TSAN_BUILD) && ctest --output-on-failure -j $(JOBS)

windeps: deps
	scripts/build-windows-deps $(WINDEPS)

# LumoHqPhoneCamera.dll with its import library, cross-built with mingw-w64, and the unit tests
# as Windows programs.
windows: windeps
	cmake -S . -B $(WIN_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Release -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
	  -DLUMO_WINDEPS=$(WINDEPS) -DLUMO_BENCH=OFF -DCMAKE_INSTALL_PREFIX=$(CURDIR)/$(WIN_BUILD)/dist
	cmake --build $(WIN_BUILD) -j $(JOBS)
	cmake --install $(WIN_BUILD) > /dev/null

# Day-to-day: the normal build alone.
check: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

check-windows: windows
	cd $(WIN_BUILD) && ctest --output-on-failure --timeout 300
	wineserver -k 2>/dev/null || true

test: build asan windows
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)
	cd $(ASAN_BUILD) && ctest --output-on-failure -j $(JOBS)
	cd $(WIN_BUILD) && ctest --output-on-failure --timeout 300
	wineserver -k 2>/dev/null || true

# libFuzzer targets, built with clang; `make fuzz-run FUZZ_SECONDS=300` runs every one for that long.
fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMO_FUZZ=ON
	cmake --build $(FUZZ_BUILD) -j $(JOBS)

fuzz-run: fuzz
	scripts/fuzz-run $(FUZZ_BUILD) $(FUZZ_SECONDS)

bench: build
	$(BUILD)/bench/bench_dispatch
	$(BUILD)/bench/bench_decode
	$(BUILD)/bench/bench_phonesim_encode
	$(BUILD)/bench/bench_kcp

# The whole system on the built-in simulated phone: lumo-phonesim streams H.264 and AAC over
# WiFi (KCP on UDP port 10099) to the library, and the reference host reports what it decoded
# and the capture-to-screen latency read from the pictures. DEMO_FLAGS="--loss 10 --delay 20"
# puts the impairment proxy in between.
DEMO_FLAGS ?=
demo: build
	LUMO_APPDATA=$(CURDIR)/$(BUILD)/demo-appdata $(BUILD)/tools/phonecam/lumo-phonecam demo --seconds 10 $(DEMO_FLAGS)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD) $(FUZZ_BUILD) $(WIN_BUILD)
