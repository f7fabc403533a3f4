# keyseal - entry points for administrators and CI.
#   make demo            sign a sample message in a private sandbox and verify it
#   make check           build (normal and sanitizer trees), the package, and run every test
#   make install         install the handler and keyseal-admin (DESTDIR and PREFIX respected)
#   make uninstall       remove what make install put there (keys and whitelist stay)
#   make deb             dist/keyseal_VERSION_ARCH.deb
#   make bench           measure keyseal against its peers and floors
#   make fuzz            run every fuzz target for FUZZ_SECONDS (libFuzzer, clang)
#   make check-debian12  make demo and make check in a fresh minimal Debian 12 root (needs the archive)
#   make check-debian13  the same in a fresh Debian 13 root

PREFIX  ?= /usr/local
BUILD   ?= build
ASAN    ?= build-asan
PKG     ?= build-pkg
FUZZ    ?= build-fuzz
JOBS    ?= $(shell nproc)
FUZZ_SECONDS ?= 60
FUZZ_TARGETS = line_parse header whitelist_word conf signer job result
VERSION := $(shell sed -n 's/^project.keyseal VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
ARCH    := $(shell dpkg --print-architecture 2>/dev/null)
DEB      = dist/keyseal_$(VERSION)_$(ARCH).deb
MAKEFLAGS += --no-print-directory

# zlib and zstd: Debian 13's libcrypto names them in its static link line
DEB_PACKAGES = build-essential cmake make g++ pkg-config libopendkim-dev libssl-dev libboost-dev libdb-dev libbsd-dev \
	zlib1g-dev libzstd-dev googletest libgtest-dev libgmock-dev openssl util-linux iproute2 \
	python3 python3-dkim python3-nacl python3-cryptography python3-dnspython python3-pytest libcli11-dev libmail-dkim-perl \
	nsd scdoc debhelper dpkg-dev lintian git zlib1g-dev nlohmann-json3-dev rsyslog \
	libmilter-dev libpsl-dev libsystemd-dev libldns-dev libmicrohttpd-dev publicsuffix postfix sasl2-bin libsasl2-modules systemd \
	knot unbound prometheus
TEST_SERVERS = nsd rsyslog postfix knot unbound prometheus opendkim rspamd
# opendkim and rspamd: the usual signing milter and a filter that signs as a milter, the
# peers of the through-Postfix rows (never started as services: the benchmark runs them in
# its own namespace)
BENCH_PACKAGES = libmail-dkim-perl opendkim rspamd
FUZZ_PACKAGES = clang
DEBIAN_ROOT_PACKAGES = debootstrap

.PHONY: all deps build build-asan check demo install uninstall deb bench fuzz check-debian12 check-debian13 clean format

all: build

# Installs what is missing: the list first, then silence unless apt fails.  The servers
# the tests run are installed without being started or enabled on this machine.
deps:
	@TEST_SERVERS="$(TEST_SERVERS)" sh sandbox/apt-install.sh $(DEB_PACKAGES)

$(BUILD)/Makefile: | deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=$(PREFIX) >/dev/null

$(ASAN)/Makefile: | deps
	cmake -S . -B $(ASAN) -DCMAKE_BUILD_TYPE=Debug -DKEYSEAL_SANITIZE=ON >/dev/null

build: deps $(BUILD)/Makefile
	cmake --build $(BUILD) -j $(JOBS)

build-asan: deps $(ASAN)/Makefile
	cmake --build $(ASAN) -j $(JOBS)

check: build build-asan deb
	cd $(BUILD) && KEYSEAL_DEB=$(CURDIR)/$(DEB) ctest --output-on-failure
	cd $(ASAN) && ctest --output-on-failure

demo: deps $(BUILD)/Makefile
	@cmake --build $(BUILD) -j $(JOBS) --target keyseal >/dev/null
	@/usr/bin/python3 -m demo.demo $(BUILD)/keyseal

# The key and spool paths are fixed in the binary; DESTDIR is honoured for them too.
# The spool directory's path and mode are the handler's, read from its header.
SPOOL_DIR = $(shell sed -n 's/^\#define MAIL_SPOOL_DIR "\(.*\)"/\1/p' mailhandler/mail_me.h)
SPOOL_MODE = $(shell sed -n 's/^\#define MAIL_SPOOL_MODE 0*\([0-7]*\).*/\1/p' mailhandler/mail_me.h)
install: build
	DESTDIR=$(DESTDIR) cmake --install $(BUILD) --prefix $(PREFIX)
	install -d -m 0755 $(DESTDIR)/etc/domainkeys
	install -d -m $(SPOOL_MODE) $(DESTDIR)$(SPOOL_DIR)

uninstall:
	rm -f $(DESTDIR)$(PREFIX)/bin/keyseal $(DESTDIR)$(PREFIX)/bin/keyseal-admin \
		$(DESTDIR)$(PREFIX)/share/man/man8/keyseal.8 $(DESTDIR)$(PREFIX)/share/man/man8/keyseal-admin.8
	-rmdir $(DESTDIR)$(SPOOL_DIR) 2>/dev/null
	@echo "kept: $(DESTDIR)/etc/domainkeys (keys and whitelist)"

# Built from a copy of the work tree, so that dpkg-buildpackage writes nothing beside it.
deb: deps
	@rm -rf $(PKG)/src && mkdir -p $(PKG)/src/keyseal dist
	@git ls-files -z --cached --others --exclude-standard | xargs -0 cp --parents -t $(PKG)/src/keyseal
	@printf 'keyseal (%s) unstable; urgency=medium\n\n  * Release %s.\n\n -- keyseal authors <keyseal@example.org>  %s\n' \
		$(VERSION) $(VERSION) "$$(date -R -d @$$(git log -1 --format=%ct 2>/dev/null || date +%s))" \
		> $(PKG)/src/keyseal/debian/changelog
	@cd $(PKG)/src/keyseal && dpkg-buildpackage -us -uc -b >../build.log 2>&1 || \
		{ tail -40 ../build.log; exit 1; }
	@cp $(PKG)/src/keyseal_$(VERSION)_$(ARCH).deb $(DEB) && echo "built $(DEB)"

bench: build
	@$(MAKE) deps DEB_PACKAGES="$(BENCH_PACKAGES)"
	@$(MAKE) deb
	/usr/bin/python3 -m bench.run --build $(BUILD) --package $(PKG)/src/keyseal/obj-$$(dpkg-architecture -qDEB_HOST_MULTIARCH)

# New inputs go to $(FUZZ)/corpus; the seeds under fuzz/corpus are only read.
fuzz: deps
	@$(MAKE) deps DEB_PACKAGES="$(FUZZ_PACKAGES)"
	@$(MAKE) deps DEB_PACKAGES="libclang-rt-$$(clang -dumpversion | cut -d. -f1)-dev"
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKEYSEAL_FUZZ=ON >/dev/null
	@cmake --build $(FUZZ) -j $(JOBS) --target $(addprefix fuzz_,$(FUZZ_TARGETS)) >$(FUZZ)/build.log 2>&1 || \
		{ tail -40 $(FUZZ)/build.log; exit 1; }
	@for t in $(FUZZ_TARGETS); do \
		mkdir -p $(FUZZ)/corpus/$$t && echo "== fuzz_$$t ($(FUZZ_SECONDS) s)" && \
		LSAN_OPTIONS=suppressions=$(CURDIR)/tests/lsan.supp $(FUZZ)/fuzz/fuzz_$$t -max_total_time=$(FUZZ_SECONDS) \
			-artifact_prefix=$(FUZZ)/ -print_final_stats=1 $(FUZZ)/corpus/$$t fuzz/corpus/$$t 2>$(FUZZ)/fuzz_$$t.log || \
			{ tail -40 $(FUZZ)/fuzz_$$t.log; exit 1; }; \
		grep -E 'DONE|stat::number_of_executed_units' $(FUZZ)/fuzz_$$t.log; \
	done

check-debian12 check-debian13:
	@$(MAKE) deps DEB_PACKAGES="$(DEBIAN_ROOT_PACKAGES)"
	@sh sandbox/debian-root.sh $(CURDIR) $(if $(filter check-debian12,$@),bookworm,trixie)

clean:
	rm -rf $(BUILD) $(ASAN) $(PKG) $(FUZZ) dist

format:
	clang-format -i $$(git ls-files '*.cc' '*.h' '*.hpp')
