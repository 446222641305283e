#include "handover/delivery_names.hpp"

#include <gmock/gmock.h>

#include "support/files.hpp"

namespace verdel::internal {
namespace {

// A template, the stems, and the names of the files or the end of the message.
constexpr const char* kNames = R"(
{stem}|Kick,Bass|Kick.wav,Bass.wav,Mix.wav
{song} {index} {stem} {rate}-{bits}|Kick,Bass|My Song 01 Kick 44100-24.wav,My Song 02 Bass 44100-24.wav,My Song 00 Mix 44100-24.wav
{{{stem}}}|Kick|{Kick}.wav,{Mix}.wav
{index}|1,2,3,4,5,6,7,8,9,10|01.wav,02.wav,03.wav,04.wav,05.wav,06.wav,07.wav,08.wav,09.wav,10.wav,00.wav
{stem}|Bässe,Comte,CONCERT,COM10|Bässe.wav,Comte.wav,CONCERT.wav,COM10.wav,Mix.wav
{song}|Kick,Bass|!“Kick” and “Bass” would both be called “My Song.wav”. Rename one, or pass a --name with {stem} or {index}.
{stem}|mIX|!“mIX” and “Mix” would both be called “Mix.wav”. Rename one, or pass a --name with {stem} or {index}.
{stem|Kick|!--name “{stem”: a brace has no partner. It knows {bits}, {index}, {rate}, {song}, {stem}.
{Stem}|Kick|!no field is called {Stem}. It knows {bits}, {index}, {rate}, {song}, {stem}.
a}{stem}|Kick|!--name “a}{stem}”: a brace has no partner. It knows {bits}, {index}, {rate}, {song}, {stem}.
{song}/{stem}|Kick|!“Kick” would be called “My Song/Kick.wav”, which other systems refuse: it holds /. Rename it, or pass another --name.
{stem}|What?|!it holds ?. Rename it, or pass another --name.
{stem}|aux.old|!Windows has a device of that name. Rename it, or pass another --name.
{stem}|lpt1|!Windows has a device of that name. Rename it, or pass another --name.
{stem}|Kick.|!it ends with a blank or a dot. Rename it, or pass another --name.
 {stem}|Kick|!it begins with a blank. Rename it, or pass another --name.
.{stem}|Kick|!it begins with a dot. Rename it, or pass another --name.
{stem}|Kick	2|!it holds a control character. Rename it, or pass another --name.
)";

TEST(DeliveryNames, AreFilledInAndHeldAgainstOtherSystems) {
  auto cases = testing::lines_of(kNames);
  cases.erase(cases.begin());
  cases.push_back(
      "{stem}|\xFF|!it holds bytes that are no UTF-8. Rename it, or pass another --name.");
  cases.push_back("{stem}|" + std::string(252, 'a') +
                  "|!it is longer than 255 bytes. Rename it, or pass another --name.");
  for (const std::string& line : cases) {
    SCOPED_TRACE(line);
    const auto parts = testing::parts_of(line, '|');
    std::string got;
    const std::string failure = testing::failure_of<std::exception>([&] {
      const DeliveryNames names = delivery_names({.name_template = parts[0],
                                                  .song = "My Song",
                                                  .stems = testing::parts_of(parts[1], ','),
                                                  .sr = 44100,
                                                  .bits = "24",
                                                  .extension = ".wav",
                                                  .with_mix = true});
      for (const std::string& name : names.stems) got += name + ",";
      got += names.mix;
    });
    if (parts[2].starts_with('!')) {
      EXPECT_THAT(failure, ::testing::EndsWith(parts[2].substr(1)));
    } else {
      EXPECT_EQ(got + failure, parts[2]);
    }
  }
}

}  // namespace
}  // namespace verdel::internal
