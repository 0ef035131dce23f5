# Mendaris K: `make demo`, `make test`, `make bench`.
# Every target installs missing Debian packages first (as root), then builds
# with CMake into build/<mode>. `make install` (PREFIX, DESTDIR) and
# `make package` (build/package: a .deb and a Windows archive) ship them.

JOBS ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_FLAGS ?=
CTEST = ctest --output-on-failure -j$(JOBS)
PREFIX ?= /usr/local

GIMP_USER_PLUGINS ?= $(HOME)/.config/GIMP/2.10/plug-ins

.PHONY: all deps native win64 win32 native32 asan tsan fuzz-build windows test test-native test-asan test-tsan test-fuzz demo bench fuzz clean install install-gimp-user package

all: native

deps:
	@bash scripts/ensure-deps.sh

native: deps
	@cmake -S . -B build/native -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS) >/dev/null
	@cmake --build build/native -j$(JOBS)

win64: deps
	@cmake -S . -B build/win64 -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-x86_64.cmake -DCMAKE_BUILD_TYPE=Release \
	  -DMENDARIS_TESTS=OFF -DMENDARIS_CLI=OFF -DMENDARIS_BENCH=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build build/win64 -j$(JOBS)

win32: deps
	@cmake -S . -B build/win32 -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-i686.cmake -DCMAKE_BUILD_TYPE=Release \
	  -DMENDARIS_TESTS=OFF -DMENDARIS_CLI=OFF -DMENDARIS_BENCH=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build build/win32 -j$(JOBS)

# The whole engine and stand-in host as 32-bit x86 code, SSE2 arithmetic.
native32: deps
	@cmake -S . -B build/native32 -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_FLAGS=-m32 -DCMAKE_CXX_FLAGS=-m32 \
	  -DMENDARIS_TESTS=OFF -DMENDARIS_CLI=OFF -DMENDARIS_BENCH=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build build/native32 -j$(JOBS)

asan: deps
	@cmake -S . -B build/asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMENDARIS_SANITIZE=address \
	  -DMENDARIS_CLI=OFF -DMENDARIS_BENCH=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build build/asan -j$(JOBS)

tsan: deps
	@cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMENDARIS_SANITIZE=thread \
	  -DMENDARIS_CLI=OFF -DMENDARIS_BENCH=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build build/tsan -j$(JOBS) --target MendarisK end_to_end_test $(shell ls tests/job_pool*_test.cpp 2>/dev/null | xargs -rn1 basename | sed 's/\.cpp$$//')

# libFuzzer targets under ASan and UBSan, built with clang.
fuzz-build: deps
	@CC=clang CXX=clang++ cmake -S . -B build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMENDARIS_FUZZ=ON $(CMAKE_FLAGS) >/dev/null
	@cmake --build build/fuzz -j$(JOBS)

windows: win64 win32

# The package is made first: the native tests check it as a packager would.
test: native windows package native32 asan tsan fuzz-build
	@$(MAKE) --no-print-directory test-native test-asan test-tsan test-fuzz

test-native:
	cd build/native && $(CTEST)

test-asan:
	cd build/asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 $(CTEST) -E '^script\.'

test-tsan:
	@if ls tests/job_pool*_test.cpp >/dev/null 2>&1; then \
	  cd build/tsan && TSAN_OPTIONS=halt_on_error=1 $(CTEST) -R '^JobPool|^Filter\.SameOutputOnOneAndOnAllProcessors$$'; \
	else echo "no job-pool tests yet"; fi

# A short run of each fuzz target; `make fuzz` runs them for ten minutes each.
test-fuzz:
	@bash scripts/fuzz.sh 25

fuzz: fuzz-build
	@bash scripts/fuzz.sh 600

# The tool, its module and man page under PREFIX; the GIMP plug-in into GIMP's
# own plug-in folder (as gimptool-2.0 reports it). DESTDIR stages the lot.
install: native
	@DESTDIR=$(DESTDIR) cmake --install build/native --prefix $(PREFIX)

package: native windows
	@bash scripts/package.sh .

demo: native
	@bash scripts/demo.sh

bench: native
	@bash scripts/bench.sh

# The GIMP plug-in for the present user only: GIMP 2.10's folder in the home.
install-gimp-user: deps
	@cmake -S . -B build/native -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS) >/dev/null
	@cmake --build build/native -j$(JOBS) --target mendaris-k MendarisK
	install -d $(GIMP_USER_PLUGINS)/mendaris-k
	install -m 755 build/native/mendaris-k build/native/MendarisK.so $(GIMP_USER_PLUGINS)/mendaris-k/

clean:
	rm -rf build
