# Front door. The real work is in scripts/ and CMake.
BUILD ?= build
CMAKE_FLAGS ?=
PREFIX ?= /usr/local
# DESTDIR (a staging directory) reaches `cmake --install` from the environment.
export DESTDIR

# What the demo and an installation need: no test tools.
PRODUCTION = -DVX_BUILD_TESTS=OFF -DVX_BUILD_BENCH=OFF -DVX_FUZZ=OFF

.PHONY: all build test demo bench install deb clean

all: build

build:
	@scripts/bootstrap test
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVX_BUILD_TESTS=ON -DVX_BUILD_BENCH=ON \
	  $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD)

test:
	@scripts/test

# Only what the demo runs: the library, vxcli and vxsim.
demo:
	@scripts/bootstrap build
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(PRODUCTION) $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD) --target vxcli vxsim vxsim_driver
	@scripts/demo $(BUILD)

bench: build
	@scripts/bench $(BUILD)

# Stripped on the way in; the build tree keeps the debug info. The last
# install step refreshes the linker cache, except under DESTDIR.
install:
	@scripts/bootstrap build
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=$(PREFIX) \
	  $(PRODUCTION) $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD)
	@cmake --install $(BUILD) --strip

# libvxsdm6, libvxsdm-dev, vxcli and vxsim in build-deb/, checked by lintian.
deb:
	@scripts/deb

# Removes what `make install` put in place, and our line of /etc/hba.conf.
.PHONY: uninstall
uninstall:
	@scripts/uninstall $(BUILD)

clean:
	rm -rf build build-asan build-tsan build-fuzz build-deb
