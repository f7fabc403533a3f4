# keyseal - entry points for administrators and CI.
#   make demo    sign a sample message in a private sandbox and verify it
#   make check   build (normal and sanitizer trees) and run every test
#   make install install the handler (DESTDIR and PREFIX respected)
#   make bench   measure keyseal against its peers and floors

PREFIX  ?= /usr/local
BUILD   ?= build
ASAN    ?= build-asan
JOBS    ?= $(shell nproc)
SUDO    := $(if $(filter 0,$(shell id -u)),,sudo)

DEB_PACKAGES = cmake make g++ pkg-config libopendkim-dev libssl-dev libboost-dev libdb-dev libbsd-dev \
	googletest libgtest-dev libgmock-dev openssl util-linux python3 python3-dkim python3-pytest
BENCH_PACKAGES = libmail-dkim-perl

.PHONY: all deps build build-asan check demo install bench clean format

all: build

deps:
	@missing=$$(for p in $(DEB_PACKAGES); do \
		dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | grep -q 'ok installed' || echo $$p; done); \
	if [ -n "$$missing" ]; then \
		echo "installing Debian packages:" $$missing; \
		$(SUDO) apt-get update -qq && \
		DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends $$missing; \
	fi

$(BUILD)/Makefile: | deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=$(PREFIX)

$(ASAN)/Makefile: | deps
	cmake -S . -B $(ASAN) -DCMAKE_BUILD_TYPE=Debug -DKEYSEAL_SANITIZE=ON

build: deps $(BUILD)/Makefile
	cmake --build $(BUILD) -j $(JOBS)

build-asan: deps $(ASAN)/Makefile
	cmake --build $(ASAN) -j $(JOBS)

check: build build-asan
	cd $(BUILD) && ctest --output-on-failure
	cd $(ASAN) && ctest --output-on-failure

demo: build
	/usr/bin/python3 demo/demo.py $(BUILD)/keyseal

# The key and spool paths are fixed in the binary; DESTDIR is honoured for them too.
install: build
	DESTDIR=$(DESTDIR) cmake --install $(BUILD) --prefix $(PREFIX)
	install -d -m 0755 $(DESTDIR)/etc/domainkeys
	install -d -m 1733 $(DESTDIR)/usr/local/hlx/handlers/spool

bench: build
	@$(MAKE) --no-print-directory deps DEB_PACKAGES="$(BENCH_PACKAGES)"
	/usr/bin/python3 bench/run.py --build $(BUILD)

clean:
	rm -rf $(BUILD) $(ASAN)

format:
	clang-format -i $$(git ls-files '*.cc' '*.h' '*.hpp')
