# KARVO_Valmetra: top-level entry points. See README.md.
SHELL := /bin/bash
.DEFAULT_GOAL := test
JOBS ?= $(shell nproc)
export WINEDEBUG := -all

APT_PACKAGES := cmake g++ make python3 googletest libgtest-dev clang libclang-rt-14-dev \
  g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix mingw-w64-tools \
  wine wine64 libwine-dev msitools wixl librsvg2-bin faketime

.PHONY: deps native native-release windows test test-native test-windows test-smoke demo dist bench bench-smoke fuzz clean

# Installs what the build needs; quiet and idempotent (nothing runs when all is there).
deps:
	@missing=$$(for p in $(APT_PACKAGES); do dpkg -s $$p >/dev/null 2>&1 || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  echo "Installing:" $$missing; \
	  export DEBIAN_FRONTEND=noninteractive; \
	  (apt-get update -qq || true) >/dev/null; \
	  apt-get install -y -qq $$missing >/dev/null; \
	fi

native: deps
	cmake --preset native-debug >/dev/null
	cmake --build --preset native-debug -j $(JOBS)

native-release: deps
	cmake --preset native-release >/dev/null
	cmake --build --preset native-release -j $(JOBS)

windows: deps
	cmake --preset win-x64 >/dev/null
	cmake --build --preset win-x64 -j $(JOBS)
	cmake --preset win-x86 >/dev/null
	cmake --build --preset win-x86 -j $(JOBS)

test-native: native native-release
	ctest --preset native-debug -j $(JOBS)
	ctest --preset native-release -j $(JOBS)

test-windows: windows
	tests/windows/run.sh
	tests/deploy/run.sh

# Fuzzers and benchmarks in smoke mode: a few seconds each, no timing assertions.
test-smoke: deps
	tests/fuzz/run.sh --smoke
	bench/run.sh --smoke

# The builds one after another (they need both cores), then the Windows suites
# (x64 and x86), deployment, fuzzing and benchmark smoke runs side by side.
test: test-native windows
	tests/run-suites.sh

# The main job: the two DLLs built for x64 and x86 (quietly; the log is
# build/logs/demo-build.log), registered into a private Wine prefix and driven
# by the host scripts of examples/, one of them also from a 32-bit host.
demo: deps
	@JOBS=$(JOBS) examples/run-demo.sh

# dist/: what ships, built from the two presets (only the targets it needs).
# Two builds of one commit give the same bytes wherever the checkout is.
DIST_TARGETS := valmetra_dll valuestack valmetra-register
dist: deps
	@for p in win-x64 win-x86; do cmake --preset $$p >/dev/null && cmake --build --preset $$p -j $(JOBS) --target $(DIST_TARGETS) || exit 1; done
	tools/dist.sh
	tools/dist-extra.sh

bench: deps
	bench/run.sh

bench-smoke: deps
	bench/run.sh --smoke

# The libFuzzer targets, then random hostile late-bound calls against both
# DLLs under Wine, HOSTILE_SECONDS per bitness.
HOSTILE_SECONDS ?= 300
fuzz: deps windows
	tests/fuzz/run.sh
	tests/windows/run.sh --hostile $(HOSTILE_SECONDS)

clean:
	rm -rf build dist
