# Two entry points that work on a fresh Debian 12 machine (as root, or with sudo):
#   make run    installs missing build dependencies, builds, runs the carrow tool
#   make test   installs missing build dependencies, builds, runs every test
#   make package  builds a Debian package of the library, headers and tool (build-package/*.deb)
# Other targets: build, bench, deps, format, clean.

BUILD_DIR     ?= build
BUILD_TYPE    ?= RelWithDebInfo
CARROW_WERROR ?= OFF
CMAKE_ARGS    ?=
JOBS          ?= $(shell nproc)
RUN_ARGS      ?= volumes
PACKAGE_DIR   ?= build-package

PACKAGES = cmake ninja-build g++ make pkg-config clang-format \
           libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev \
           libmount-dev libblkid-dev libboost-dev libsystemd-dev libspdlog-dev systemd \
           dpkg-dev file $(EXTRA_PACKAGES)

SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: all deps configure build run test bench package format check-format clean

all: build

deps:
	@missing=$$(for p in $(PACKAGES); do \
	    dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | grep -q '^install ok installed' || echo $$p; \
	  done); \
	if [ -n "$$missing" ]; then \
	  echo "Installing:" $$missing; \
	  $(SUDO) apt-get update -q && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -q --no-install-recommends $$missing; \
	fi

configure: deps
	cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) \
	  -DCARROW_WERROR=$(CARROW_WERROR) $(CMAKE_ARGS)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

run: build
	$(BUILD_DIR)/tools/carrow/carrow $(RUN_ARGS)

test: build
	ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS)

bench: build
	@for b in $(BUILD_DIR)/bench/bench_*; do echo "== $$b"; $$b --benchmark_min_time=0.2; done

# Installed under /usr, so the package's libraries land in the multiarch library directory.
package: deps
	cmake -S . -B $(PACKAGE_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) \
	  -DCMAKE_INSTALL_PREFIX=/usr -DCARROW_BUILD_TESTS=OFF -DCARROW_BUILD_BENCH=OFF \
	  -DCARROW_WERROR=$(CARROW_WERROR) $(CMAKE_ARGS)
	cmake --build $(PACKAGE_DIR) -j $(JOBS)
	cd $(PACKAGE_DIR) && cpack -G DEB

format:
	git ls-files '*.h' '*.cpp' '*.c' | xargs -r clang-format -i

check-format:
	git ls-files '*.h' '*.cpp' '*.c' | xargs -r clang-format --dry-run --Werror

clean:
	rm -rf $(BUILD_DIR) $(PACKAGE_DIR)
