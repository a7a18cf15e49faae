# SPDX-License-Identifier: Apache-2.0
# The small folder that `make run` shares: a few seconds of audio and video and two pictures in
# sub-folders, made at build time (target tw_sample_folder, part of ALL), plus readme.txt.
# ffmpeg, when installed and wanted, makes real encodes; whatever it cannot make (no encoder, or
# TW_SAMPLE_MEDIA_WITH_FFMPEG=OFF) comes from tarnwick-sample-media, which writes valid minimal
# files byte by byte. Either way the names are the same.
option(TW_SAMPLE_MEDIA_WITH_FFMPEG "Make the sample folder's media with ffmpeg when installed" ON)
set(TW_SAMPLE_DIR ${PROJECT_BINARY_DIR}/sample)
file(MAKE_DIRECTORY ${TW_SAMPLE_DIR})
# Files of earlier versions of this folder.
file(REMOVE ${TW_SAMPLE_DIR}/numbers.txt ${TW_SAMPLE_DIR}/page.html ${TW_SAMPLE_DIR}/picture.svg)
file(WRITE ${TW_SAMPLE_DIR}/readme.txt
  "This folder is shared by tarnwick-mediaserver (make run).\n"
  "Music/ holds tone.wav, tone.mp3 and tone.m4a, Video/ clip.mp4, Pictures/ frame.jpg and\n"
  "frame.png. Control points browse them; the status page at http://127.0.0.1:9000/ links\n"
  "each one, and every item can be fetched whole or in byte ranges.\n")

set(_tw_ffmpeg_encoders "")
if(TW_SAMPLE_MEDIA_WITH_FFMPEG AND NOT CMAKE_CROSSCOMPILING)
  find_program(TW_FFMPEG ffmpeg)
  if(TW_FFMPEG)
    execute_process(COMMAND ${TW_FFMPEG} -hide_banner -encoders
                    OUTPUT_VARIABLE _tw_ffmpeg_encoders ERROR_QUIET RESULT_VARIABLE _tw_ffmpeg_rc)
    if(NOT _tw_ffmpeg_rc EQUAL 0)
      set(_tw_ffmpeg_encoders "")
    endif()
  endif()
endif()
macro(_tw_has_encoder name var)
  if(_tw_ffmpeg_encoders MATCHES "[ \n]${name} ")
    set(${var} ON)
  else()
    set(${var} OFF)
  endif()
endmacro()
_tw_has_encoder(pcm_s16le _tw_has_pcm)
_tw_has_encoder(libmp3lame _tw_has_mp3)
_tw_has_encoder(aac _tw_has_aac)
_tw_has_encoder(libx264 _tw_has_x264)
_tw_has_encoder(mpeg4 _tw_has_mpeg4)
_tw_has_encoder(mjpeg _tw_has_mjpeg)
_tw_has_encoder(png _tw_has_png)

# ffmpeg arguments per file; an empty entry leaves the file to tarnwick-sample-media.
set(_tw_ff -hide_banner -loglevel error -nostdin -y)
set(_tw_tone -f lavfi -i sine=frequency=440:duration=2)
set(_tw_testsrc -f lavfi -i testsrc=duration=2:size=320x240:rate=10)
set(_tw_picture -f lavfi -i testsrc=size=320x240 -frames:v 1)
set(_tw_media Music/tone.wav Music/tone.mp3 Music/tone.m4a Video/clip.mp4 Pictures/frame.jpg
    Pictures/frame.png)
set(_tw_args_Music/tone.wav "")
set(_tw_args_Music/tone.mp3 "")
set(_tw_args_Music/tone.m4a "")
set(_tw_args_Video/clip.mp4 "")
set(_tw_args_Pictures/frame.jpg "")
set(_tw_args_Pictures/frame.png "")
if(_tw_has_pcm)
  set(_tw_args_Music/tone.wav ${_tw_tone} -ar 22050 -c:a pcm_s16le)
endif()
if(_tw_has_mp3)
  set(_tw_args_Music/tone.mp3 ${_tw_tone} -c:a libmp3lame -b:a 64k)
endif()
if(_tw_has_aac)
  set(_tw_args_Music/tone.m4a ${_tw_tone} -c:a aac -b:a 64k)
endif()
if(_tw_has_x264 AND _tw_has_aac)
  set(_tw_args_Video/clip.mp4 ${_tw_testsrc} ${_tw_tone} -c:v libx264 -pix_fmt yuv420p -c:a aac
      -b:a 64k -shortest -movflags +faststart)
elseif(_tw_has_mpeg4)
  set(_tw_args_Video/clip.mp4 ${_tw_testsrc} -c:v mpeg4 -pix_fmt yuv420p -movflags +faststart)
endif()
if(_tw_has_mjpeg)
  set(_tw_args_Pictures/frame.jpg ${_tw_picture})
endif()
if(_tw_has_png)
  set(_tw_args_Pictures/frame.png ${_tw_picture})
endif()

# The plan, rewritten only when it changes: switching the option or the encoders remakes files.
set(_tw_plan "")
foreach(_tw_name IN LISTS _tw_media)
  string(APPEND _tw_plan "${_tw_name}: ${_tw_args_${_tw_name}}\n")
endforeach()
set(_tw_plan_file ${PROJECT_BINARY_DIR}/sample_media_plan.txt)
file(CONFIGURE OUTPUT ${_tw_plan_file} CONTENT "${_tw_plan}" @ONLY)

set(_tw_outputs "")
set(_tw_own_files "")
set(TW_SAMPLE_MEDIA_BY_FFMPEG "")
foreach(_tw_name IN LISTS _tw_media)
  set(_tw_out ${TW_SAMPLE_DIR}/${_tw_name})
  list(APPEND _tw_outputs ${_tw_out})
  if(_tw_args_${_tw_name})
    get_filename_component(_tw_dir ${_tw_out} DIRECTORY)
    add_custom_command(OUTPUT ${_tw_out}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${_tw_dir}
      COMMAND ${TW_FFMPEG} ${_tw_ff} ${_tw_args_${_tw_name}} ${_tw_out}
      DEPENDS ${_tw_plan_file}
      COMMENT "Making sample/${_tw_name} with ffmpeg" VERBATIM)
    list(APPEND TW_SAMPLE_MEDIA_BY_FFMPEG ${_tw_name})
  else()
    list(APPEND _tw_own_files ${_tw_name})
  endif()
endforeach()
if(_tw_own_files)
  set(_tw_own_outputs "")
  foreach(_tw_name IN LISTS _tw_own_files)
    list(APPEND _tw_own_outputs ${TW_SAMPLE_DIR}/${_tw_name})
  endforeach()
  add_custom_command(OUTPUT ${_tw_own_outputs}
    COMMAND tarnwick_sample_media ${TW_SAMPLE_DIR} ${_tw_own_files}
    DEPENDS tarnwick_sample_media ${_tw_plan_file}
    COMMENT "Making sample media: ${_tw_own_files}" VERBATIM)
endif()
add_custom_target(tw_sample_folder ALL DEPENDS ${_tw_outputs})
# Which files ffmpeg made (the tests compare their durations with the probe's).
set_property(GLOBAL PROPERTY TW_SAMPLE_MEDIA_BY_FFMPEG "${TW_SAMPLE_MEDIA_BY_FFMPEG}")
