# Sourced by the stages that fuzz. Before they call fuzz(), they set `learned`: the directory below
# which each target keeps what it learns.

# Downloads go where no disk is worn; what libFuzzer kills leaves some behind.
scratch=$(mktemp -d -p "$([ -w /dev/shm ] && echo /dev/shm || echo "${TMPDIR:-/tmp}")" corvane-fuzz-XXXXXX)
trap 'rm -rf "$scratch"' EXIT

build_targets() {
    step "Building: fuzz"
    cmake --preset fuzz
    cmake --build --preset fuzz
}

# fuzz SECONDS TARGET...: all at once, each with a log of its own; fails if any of them does.
fuzz() {
    local seconds=$1 target failed=0
    local -A running=()
    shift
    mkdir -p build/fuzz/findings
    step "Fuzzing for $seconds s: $*"
    for target in "$@"; do
        start "$seconds" "$target" >"build/fuzz/$target.log" 2>&1 &
        running[$target]=$!
    done
    for target in "$@"; do
        if wait "${running[$target]}"; then
            echo "$target: $(grep -m1 -o 'Seed: .*' "build/fuzz/$target.log")," \
                "$(grep 'DONE ' "build/fuzz/$target.log" | tr -s ' \t' ' ')"
        else
            tail -n 60 "build/fuzz/$target.log"
            failed=1
        fi
    done
    return "$failed"
}

start() {
    local seconds=$1 target=$2 inputs=tests/fuzz
    local seeds=("$learned/$target" "$inputs/corpus/$target")
    mkdir -p "$learned/$target"
    [ ! -d "$inputs/regressions/$target" ] || seeds+=("$inputs/regressions/$target")
    TMPDIR=$scratch exec "build/fuzz/tests/fuzz/fuzz_$target" -max_total_time="$seconds" \
        -len_control=0 -seed="${CORVANE_FUZZ_SEED:-0}" -timeout=60 -print_final_stats=1 \
        -dict="$inputs/$target.dict" -artifact_prefix="build/fuzz/findings/$target-" "${seeds[@]}"
}
