# Sourced by the stages that read the sources.

sources=(src cli sandbox examples benchmarks tests)

# Makes build/tidy, which knows how Clang compiles every source, and what moc makes of them.
configure_sources() {
    cmake --preset tidy
    cmake --build --preset tidy
    cmake -G Ninja -S tests/consumer -B build/tidy/consumer -D CORVANE_SOURCE="$PWD" \
        -D CMAKE_CXX_COMPILER=clang++ -D CMAKE_EXPORT_COMPILE_COMMANDS=ON
    # It finds a package; this one is the sources.
    local package=build/tidy/package
    mkdir -p "$package"
    printf '%s\n' "set(CORVANE_SANDBOX ON)" "add_subdirectory([[$PWD]] corvane)" >"$package/CorvaneConfig.cmake"
    echo "set(PACKAGE_VERSION_COMPATIBLE ON)" >"$package/CorvaneConfigVersion.cmake"
    local project
    for project in consumer-host consumer-qml; do
        cmake -G Ninja -S "tests/$project" -B "build/tidy/$project" -D Corvane_DIR="$PWD/$package" \
            -D CMAKE_CXX_COMPILER=clang++ -D CMAKE_EXPORT_COMPILE_COMMANDS=ON \
            -D CMAKE_AUTOGEN_ORIGIN_DEPENDS=OFF
    done
    cmake --build build/tidy/consumer-host --target host_autogen tst_host_autogen
    cmake --build build/tidy/consumer-qml --target qmlhost_autogen
}

# check_source TOTAL NUMBER FILE COMMAND...: COMMAND on FILE, as it is compiled.
check_source() {
    local total=$1 number=$2 file=$3 database=build/tidy output status=0
    shift 3
    case $file in
        tests/consumer/*) database=build/tidy/consumer ;;
        tests/consumer-host/*) database=build/tidy/consumer-host ;;
        tests/consumer-qml/*) database=build/tidy/consumer-qml ;;
    esac
    # A file that nothing compiles would be read as if it were some other one.
    if ! grep -qF "\"file\": \"$PWD/$file\"" "$database/compile_commands.json"; then
        echo "[$number/$total] $file: the preset tidy does not compile it"
        return 1
    fi
    output=$("$@" -p "$database" "$file" 2>&1) || status=1
    output=$(grep -vE '^[0-9]+ (warnings?|errors?)( and [0-9]+ errors?)? (generated|treated as errors?)\.?$|^Suppressed |^Use -header-filter' <<<"$output") || true
    echo "[$number/$total] $file${output:+$'\n'$output}"
    return "$status"
}
export -f check_source

# check_sources COMMAND...: COMMAND on every source, on all cores.
check_sources() {
    local files
    mapfile -t files < <(find "${sources[@]}" -name '*.cpp' | sort)
    local numbers=("${!files[@]}") number
    for number in "${numbers[@]}"; do
        printf '%s\0%s\0' "$((number + 1))" "${files[number]}"
    done | xargs -0 -P "$(nproc)" -n 2 \
        bash -c 'command=("${@:2:$# - 3}"); check_source "$1" "${@: -2}" "${command[@]}"' - \
        "${#files[@]}" "$@"
    echo "${#files[@]} files checked with $1"
}
