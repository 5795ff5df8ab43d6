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
file(TOUCH "${OUT}/stamp")
