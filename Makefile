# The commands of the README. CMake does the building; see CONTRIBUTING.md for its presets.
.PHONY: all test demo bench fuzz soak coverage

all:
	@scripts/setup build tools mqtt
	cmake --preset product
	cmake --build --preset product

test:
	@scripts/setup build test tools mqtt
	cmake --workflow --preset release

demo:
	@scripts/setup build tools
	@examples/demo/run

fuzz:
	@tests/fuzz/run $$(( $(if $(MINUTES),$(MINUTES),20) * 60 ))

bench:
	@bench/run

soak:
	@tests/soak/run $$(( $(if $(MINUTES),$(MINUTES),10) * 60 ))

coverage:
	@scripts/setup build test coverage tools
	@scripts/coverage
