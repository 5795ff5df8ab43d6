# Turns every line of the scripted conversation into wire PCM (24 kHz, s16le, mono), with
# espeak-ng and sox, so the softphone and the realtime stand-in speak real French.
# Usage: cmake -DCONVERSATION=conversation.json -DOUT=dir -P synthesize.cmake
file(READ "${CONVERSATION}" json)
file(MAKE_DIRECTORY "${OUT}")
configure_file("${CONVERSATION}" "${OUT}/conversation.json" COPYONLY)
string(JSON count LENGTH "${json}" turns)
math(EXPR last "${count} - 1")
foreach(i RANGE ${last})
    string(JSON id GET "${json}" turns ${i} id)
    string(JSON voice GET "${json}" turns ${i} voice)
    string(JSON text GET "${json}" turns ${i} text)
    file(WRITE "${OUT}/${id}.txt" "${text}")
    execute_process(
        COMMAND espeak-ng -v ${voice} -s 165 -f "${OUT}/${id}.txt" -w "${OUT}/${id}.wav"
        RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "espeak-ng failed for ${id}")
    endif()
    # Leading silence trimmed so the first sample of a line is its first sound; peak at -3 dBFS.
    execute_process(
        COMMAND sox "${OUT}/${id}.wav" -r 24000 -c 1 -b 16 -e signed-integer -t raw "${OUT}/${id}.raw"
                silence 1 0.005 0.5% gain -n -3
        RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "sox failed for ${id}")
    endif()
    file(REMOVE "${OUT}/${id}.wav" "${OUT}/${id}.txt")
endforeach()

# The caller's whole side as one telephone-quality WAV file, for a SIP caller that plays a file:
# each caller line after the preceding assistant line has had time to be said, with the
# provider's 650 ms turn detection and a margin, and a last silence for the goodbye, after
# which the caller hangs up.
set(gap_ms 1500)
# sox wants seconds: "S.mmm".
function(seconds_of ms out)
    math(EXPR s "${ms} / 1000")
    math(EXPR rest "${ms} % 1000 + 1000")
    string(SUBSTRING "${rest}" 1 3 rest)
    set(${out} "${s}.${rest}" PARENT_SCOPE)
endfunction()
# Appends `ms` of silence (24 kHz, 16-bit mono raw) to the list `pieces`.
function(append_pause ms)
    list(LENGTH pieces n)
    seconds_of(${ms} pause)
    execute_process(
        COMMAND sox -n -r 24000 -c 1 -b 16 -e signed-integer -t raw "${OUT}/pause-${n}.raw"
                trim 0 ${pause}
        RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "sox failed for a pause")
    endif()
    list(APPEND pieces "${OUT}/pause-${n}.raw")
    set(pieces "${pieces}" PARENT_SCOPE)
endfunction()
set(turn_ms 700)
set(pieces)
set(silence_ms 0)
set(answered FALSE)
foreach(i RANGE ${last})
    string(JSON id GET "${json}" turns ${i} id)
    string(JSON role GET "${json}" turns ${i} role)
    file(SIZE "${OUT}/${id}.raw" bytes)
    math(EXPR ms "${bytes} / 48")
    if(role STREQUAL "assistant")
        math(EXPR silence_ms "${silence_ms} + ${ms} + ${gap_ms}")
        if(answered)
            math(EXPR silence_ms "${silence_ms} + ${turn_ms}")
        endif()
    else()
        set(answered TRUE)
        append_pause(${silence_ms})
        list(APPEND pieces "${OUT}/${id}.raw")
        set(silence_ms 0)
    endif()
endforeach()
append_pause(${silence_ms})
set(inputs)
foreach(piece IN LISTS pieces)
    list(APPEND inputs -t raw -r 24000 -c 1 -b 16 -e signed-integer "${piece}")
endforeach()
execute_process(COMMAND sox ${inputs} -r 8000 -c 1 -b 16 "${OUT}/caller.wav" RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "sox failed for the caller's file")
endif()
file(GLOB pauses "${OUT}/pause-*.raw")
file(REMOVE ${pauses})
file(TOUCH "${OUT}/stamp")
