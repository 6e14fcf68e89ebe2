# make run   builds Velmar and runs it on a fresh demo home (under Xvfb when
#            there is no display, with a screenshot)
# make test  builds everything and runs the whole test suite, then the unit
#            tests and fuzz targets again under AddressSanitizer/UBSan
BUILD := build
ASAN := build-asan

.PHONY: all deps configure build test test-main test-asan run clean

all: build

deps:
	@scripts/install-deps

configure: deps
	@test -f $(BUILD)/build.ninja || cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo

build: configure
	cmake --build $(BUILD)

test: test-main test-asan

test-main: build
	scripts/check-layers
	cd $(BUILD) && ctest --output-on-failure -j2 --timeout 300

test-asan: deps
	@test -f $(ASAN)/build.ninja || cmake -S . -B $(ASAN) -G Ninja -DCMAKE_BUILD_TYPE=Debug \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
	  -DVELMAR_WITH_QT=OFF -DVELMAR_SANITIZE=ON -DVELMAR_FUZZ=ON
	cmake --build $(ASAN)
	cd $(ASAN) && ctest --output-on-failure -j2 --timeout 300 -L 'unit|fuzz-smoke'

run: build
	scripts/run-demo $(BUILD)

clean:
	rm -rf $(BUILD) $(ASAN)
