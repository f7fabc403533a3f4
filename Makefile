# keyseal - entry points for administrators and CI.
#   make demo    sign a sample message in a private sandbox and verify it
#   make check   build (normal and sanitizer trees) and run every test
#   make install install the handler (DESTDIR and PREFIX respected)
#   make bench   measure keyseal against its peers and floors
#   make fuzz    run every fuzz target for FUZZ_SECONDS (libFuzzer, clang)

PREFIX  ?= /usr/local
BUILD   ?= build
ASAN    ?= build-asan
FUZZ    ?= build-fuzz
FUZZ_SECONDS ?= 60
FUZZ_TARGETS = line_parse header whitelist_word conf signer
JOBS    ?= $(shell nproc)
SUDO    := $(if $(filter 0,$(shell id -u)),,sudo)

DEB_PACKAGES = cmake make g++ pkg-config libopendkim-dev libssl-dev libboost-dev libdb-dev libbsd-dev \
	googletest libgtest-dev libgmock-dev openssl util-linux python3 python3-dkim python3-pytest \
	clang libclang-rt-14-dev libcli11-dev nsd iproute2 scdoc
BENCH_PACKAGES = libmail-dkim-perl

.PHONY: all deps build build-asan check demo install bench fuzz clean format

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

# New inputs go to $(FUZZ)/corpus; the seeds under fuzz/corpus are only read.
fuzz: deps
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

clean:
	rm -rf $(BUILD) $(ASAN) $(FUZZ)

format:
	clang-format -i $$(git ls-files '*.cc' '*.h' '*.hpp')
