# Front door. The real work is in scripts/ and CMake.
BUILD ?= build
CMAKE_FLAGS ?=

.PHONY: all build test demo bench install clean

all: build

build:
	@scripts/bootstrap
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD)

test:
	@scripts/test

demo: build
	@scripts/demo $(BUILD)

bench: build
	@scripts/bench $(BUILD)

install: build
	@cmake --install $(BUILD)
	@ldconfig

# Removes what `make install` put in place, and our line of /etc/hba.conf.
.PHONY: uninstall
uninstall:
	@scripts/uninstall $(BUILD)

clean:
	rm -rf build build-asan build-tsan build-fuzz
