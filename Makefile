# The commands of the README. CMake does the building; see CONTRIBUTING.md for its presets.
.PHONY: all test demo bench fuzz soak coverage mutate

# Building needs libraries only and installs nothing: it says what is missing.
all:
	@scripts/setup --check build tools mqtt
	cmake --preset product
	cmake --build --preset product

# Of two that start in one folder one waits: both would build, and list the tests, into its files.
test:
	@scripts/setup build test tools mqtt mqtt-test
	@scripts/check-namespaces
	@mkdir -p build
	@flock --nonblock build true || echo "waiting for another run in this folder"
	flock --no-fork build cmake --workflow --preset release

demo:
	@scripts/setup build tools
	@examples/demo/run

fuzz:
	@seconds=$$(scripts/seconds "$(or $(MINUTES),20)") && tests/fuzz/run "$$seconds"

bench:
	@bench/run

soak:
	@seconds=$$(scripts/seconds "$(or $(MINUTES),10)") && tests/soak/run "$$seconds"

coverage:
	@scripts/setup build test coverage tools
	@scripts/coverage

# Some hours on busy processors; EVERY=10 tries one mutant in ten, FILES names the sources.
mutate:
	@scripts/setup build test
	@scripts/mutate --every $(or $(EVERY),1) $(FILES)
