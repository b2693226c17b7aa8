#!/usr/bin/env bats
# The shared object as it is built: what it exports, what it needs, how much room it takes. LIBRARY is
# the file, MACHINE what it is for, STRIP the program that takes symbols off, SOURCES where they lie,
# in a release build.

bats_require_minimum_version 1.5.0

setup() { cd "$BATS_TEST_TMPDIR"; }

# The names by which a host calls it; all but the driver's are the modules', for hosts that do without
# the driver.
exported() {
    echo GOLT_{CreateRemuxerDriver,DestroyRemuxerDriver,version}
    echo GOLT_{memInit,memClose,allocMem,freeMem}
    echo GOLT_DMX_{M2TS,MKV,MP3,MP4}{Init,Destroy,ReadFrame,SeekToBytes,SeekToTime,GetStreamInfo}
    echo GOLT_RMX_{init,setStreamInfo,destroy,getPTS,writeHeader,writeTrailer,writeFrame}
    echo GOLT_RMX_{convertFrame,getRemuxInfo}
    echo GOLT_EXT_{AAC,DD,H264,MP3}{Start,Reset,ReadSingleFrame}
}

# A C++ name would be here in its mangled form, and a variable as an OBJECT.
@test "Exports its functions by their C names, and nothing else" {
    exported | tr ' ' '\n' | sort >expected
    [ "$(wc -l <expected)" -eq 52 ]
    readelf --wide --dyn-syms "$LIBRARY" |
        awk '$5 != "LOCAL" && $7 != "UND" && NF == 8 && $1 != "Num:" { print $8, $4, $5, $6 }' |
        sort >found
    diff <(sed 's/$/ FUNC GLOBAL DEFAULT/' expected) found
}

@test "Needs the C and C++ libraries alone" {
    readelf --wide --dynamic "$LIBRARY" >entries
    [ "$(sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p' entries)" = libgolt.so.0.8 ]
    diff <(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' entries | sort) \
        <(printf '%s\n' libc.so.6 libstdc++.so.6)
    # No constructor may have it made executable or writable where it is code.
    run ! grep -E 'TEXTREL|RPATH|RUNPATH' entries
}

# section NAME...: their bytes in all.
section() {
    local pattern
    pattern="^($(IFS='|' && echo "$*"))\$"
    readelf --wide --section-headers "$LIBRARY" | sed 's/^ *\[ *[0-9]*\] //' |
        while read -r name _ _ _ size _; do
            [[ ! $name =~ $pattern ]] || echo $((16#$size))
        done | paste -sd+ | bc
}

# What docs/architecture.md promises, in bytes.
@test "Takes no more room than a small device has" {
    local stripped limit=160000
    "$STRIP" -o stripped "$LIBRARY"
    stripped=$(stat -c %s stripped)
    echo "$MACHINE: stripped $stripped, writable data $(section .data .remux .bss)"
    [ "$MACHINE" != arm ] || limit=100000
    [ "$stripped" -lt "$limit" ]
    [ "$(section .data .remux .bss)" -gt 0 ]
    [ "$(section .data .remux .bss)" -le 4096 ]
}

@test "Names no folder of the machine that built it" {
    [ -n "$SOURCES" ] || skip "only a release leaves them out"
    run -1 grep --text --fixed-strings "$SOURCES/" "$LIBRARY"
}
