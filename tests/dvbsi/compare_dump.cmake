# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

# cmake -DPROGRAM= -DOPTIONS= -DDATA= -DEXPECTED= -P: runs PROGRAM OPTIONS DATA and compares its output with EXPECTED.
execute_process(COMMAND "${PROGRAM}" ${OPTIONS} "${DATA}" OUTPUT_VARIABLE printed RESULT_VARIABLE result)
file(READ "${EXPECTED}" expected)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${PROGRAM} ended with ${result}")
endif()
if(NOT printed STREQUAL expected)
  message(FATAL_ERROR "${PROGRAM} ${OPTIONS} ${DATA} does not print ${EXPECTED}")
endif()
