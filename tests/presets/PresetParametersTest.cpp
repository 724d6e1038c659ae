#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "presets/PresetParameters.hpp"

namespace tessarin::presets {
namespace {

using nlohmann::json;
using LossyMode = PresetParameters::LossyMode;
using ScaleMode = PresetParameters::ScaleMode;

struct Decoded {
    PresetParameters parameters;
    std::set<std::string> noted;
};

Decoded decode(const json& value) {
    DecodeRepairLog log;
    PresetParameters parameters = PresetParameters::fromJSON(value, &log);
    return {parameters, log.recordedFields()};
}

TEST(PresetParametersDecoding, EmptyObjectTakesEveryFallbackWithoutRepair) {
    const Decoded decoded = decode(json::object());
    EXPECT_TRUE(decoded.noted.empty());
    const PresetParameters& p = decoded.parameters;
    EXPECT_EQ(p.quality, 23);
    EXPECT_FALSE(p.fps.has_value());
    EXPECT_EQ(p.scaleMode, ScaleMode::original);
    EXPECT_EQ(p.scaleValue, 720);
    EXPECT_EQ(p.speedPreset, "medium");
    EXPECT_EQ(p.dither, "sierra2_4a");
    EXPECT_EQ(p.lossyMode, LossyMode::off);
    EXPECT_EQ(p.lossyLevel, 20);
    EXPECT_TRUE(p.optimizeGif);

    const PresetParameters::Sanitized h264 = p.sanitized(PresetFormat::h264, decoded.noted);
    EXPECT_FALSE(h264.repaired);
    EXPECT_EQ(h264.parameters, p);
}

// Each key given a value of the wrong type: the key alone is noted and takes its fallback,
// while every other field keeps the sound value stored beside it.
TEST(PresetParametersDecoding, WrongTypePerKeyIsNotedAndOthersSurvive) {
    const json sound = {
        {"quality", 30},           {"fps", 24},
        {"scaleMode", "fitWidth"}, {"scaleValue", 640},
        {"speedPreset", "slow"},   {"dither", "bayer"},
        {"lossyMode", "level"},    {"lossyLevel", 80},
        {"optimizeGif", false},
    };
    const PresetParameters soundDecoded = decode(sound).parameters;
    ASSERT_EQ(soundDecoded.quality, 30);
    ASSERT_EQ(soundDecoded.scaleMode, ScaleMode::fitWidth);

    struct Row {
        const char* key;
        json wrong;
    };
    const std::vector<Row> rows = {
        {"quality", "30"},       {"quality", 30.5},
        {"quality", true},       {"fps", "24"},
        {"fps", json::array()},  {"scaleMode", 3},
        {"scaleValue", "640"},   {"speedPreset", 5},
        {"dither", false},       {"lossyMode", 2},
        {"lossyLevel", "80"},    {"optimizeGif", 0},
        {"optimizeGif", "true"}, {"scaleValue", json::object()},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.key) + " = " + row.wrong.dump());
        json stored = sound;
        stored[row.key] = row.wrong;
        const Decoded decoded = decode(stored);
        EXPECT_EQ(decoded.noted, std::set<std::string>{row.key});
        // The same as if the key were missing.
        json withoutKey = sound;
        withoutKey.erase(row.key);
        const Decoded missing = decode(withoutKey);
        ASSERT_TRUE(missing.noted.empty());
        EXPECT_EQ(decoded.parameters, missing.parameters);
    }
}

TEST(PresetParametersDecoding, UnknownEnumerationValuesFallBackAndAreRepaired) {
    const Decoded lossy = decode({{"lossyMode", "max"}});
    EXPECT_EQ(lossy.parameters.lossyMode, LossyMode::off);
    EXPECT_EQ(lossy.noted, std::set<std::string>{"lossyMode"});
    EXPECT_TRUE(lossy.parameters.sanitized(PresetFormat::gif, lossy.noted).repaired);

    const Decoded scale = decode({{"scaleMode", "p2160"}});
    EXPECT_EQ(scale.parameters.scaleMode, ScaleMode::original);
    EXPECT_EQ(scale.noted, std::set<std::string>{"scaleMode"});

    // Raw values are case-sensitive.
    EXPECT_EQ(decode({{"scaleMode", "FitWidth"}}).noted, std::set<std::string>{"scaleMode"});
}

TEST(PresetParametersDecoding, QualityAsStringTakesTheFormatDefaultWhenSanitised) {
    const Decoded decoded = decode({{"quality", "30"}});
    EXPECT_EQ(decoded.parameters.quality, 23);
    EXPECT_EQ(decoded.noted, std::set<std::string>{"quality"});
    const PresetParameters::Sanitized h265 =
        decoded.parameters.sanitized(PresetFormat::h265, decoded.noted);
    EXPECT_TRUE(h265.repaired);
    EXPECT_EQ(h265.parameters.quality, 28);
}

TEST(PresetParametersDecoding, NullFpsIsAbsentWithoutRepairAndZeroIsClamped) {
    const Decoded null = decode({{"fps", nullptr}});
    EXPECT_FALSE(null.parameters.fps.has_value());
    EXPECT_TRUE(null.noted.empty());

    const Decoded zero = decode({{"fps", 0}});
    EXPECT_EQ(zero.parameters.fps, 0);
    EXPECT_TRUE(zero.noted.empty());
    const PresetParameters::Sanitized clamped =
        zero.parameters.sanitized(PresetFormat::h264, zero.noted);
    EXPECT_TRUE(clamped.repaired);
    EXPECT_EQ(clamped.parameters.fps, 1);

    // A noted fps takes the format's default: 10 for GIF, none for video.
    const Decoded wrong = decode({{"fps", "fast"}});
    EXPECT_EQ(wrong.parameters.sanitized(PresetFormat::gif, wrong.noted).parameters.fps, 10);
    EXPECT_FALSE(wrong.parameters.sanitized(PresetFormat::vp9, wrong.noted).parameters.fps);
}

TEST(PresetParametersDecoding, IntegralNumbersInAnyJSONFormAreRead) {
    EXPECT_EQ(decode({{"quality", 30.0}}).parameters.quality, 30);
    EXPECT_TRUE(decode({{"quality", 30.0}}).noted.empty());
    // Beyond int: saturated, then clamped like any other out-of-range value.
    const Decoded huge = decode(json::parse(R"({"quality": 99999999999})"));
    EXPECT_TRUE(huge.noted.empty());
    EXPECT_EQ(huge.parameters.sanitized(PresetFormat::h264, {}).parameters.quality, 63);
    EXPECT_EQ(decode(json::parse(R"({"quality": 1e300})")).noted, std::set<std::string>{"quality"});
}

TEST(PresetParametersDecoding, OnlyAnObjectDecodes) {
    for (const json& value : {json(17), json("x"), json::array(), json(nullptr)}) {
        EXPECT_THROW((void)PresetParameters::fromJSON(value), PresetDecodeError) << value.dump();
    }
    // Without a log the decoder decodes the same way.
    EXPECT_EQ(PresetParameters::fromJSON({{"quality", "x"}, {"scaleValue", 64}}).scaleValue, 64);
}

TEST(PresetParametersJSON, RoundTripWritesFpsOnlyWhenPresent) {
    PresetParameters p = defaultParameters(PresetFormat::gif);
    p.scaleMode = ScaleMode::fitHeight;
    p.scaleValue = 481;
    p.lossyMode = LossyMode::level;
    p.lossyLevel = 45;
    p.optimizeGif = false;
    const json encoded = p.toJSON();
    EXPECT_EQ(encoded.at("fps"), 10);
    EXPECT_EQ(encoded.at("scaleMode"), "fitHeight");
    EXPECT_EQ(encoded.at("lossyMode"), "level");
    EXPECT_EQ(PresetParameters::fromJSON(json::parse(encoded.dump())), p);

    const json withoutFps = defaultParameters(PresetFormat::h264).toJSON();
    EXPECT_FALSE(withoutFps.contains("fps"));
    EXPECT_EQ(withoutFps.size(), 8U);
}

// The format's defaults with the fields of `patch` replaced.
PresetParameters with(PresetFormat format, const json& patch) {
    json value = defaultParameters(format).toJSON();
    value.merge_patch(patch);
    return PresetParameters::fromJSON(value);
}

TEST(PresetParametersValidation, SentencesPerFormat) {
    using F = PresetFormat;
    const struct {
        PresetFormat format;
        json patch;
        std::vector<std::string> errors;
    } rows[] = {
        {F::h264, json::object(), {}},
        {F::h264, {{"quality", 64}}, {"Quality 64 is outside 0–63 for H.264."}},
        {F::h264, {{"quality", 63}}, {}},
        {F::h265, {{"quality", 52}}, {"Quality 52 is outside 0–51 for H.265."}},
        {F::h264VT, {{"quality", 0}}, {"Quality 0 is outside 1–100 for H.264 hardware."}},
        {F::hevcVT, {{"quality", 100}}, {}},
        {F::gif, {{"quality", -1}}, {"Quality -1 is outside 0–63 for GIF."}},
        {F::av1, {{"fps", 61}}, {"Frame rate 61 fps is outside 1–60 for AV1."}},
        {F::h265,
         {{"speedPreset", "ludicrous"}},
         {"Speed preset \"ludicrous\" is not a recognized x264/x265 preset."}},
        {F::vp9, {{"speedPreset", "ludicrous"}}, {}},
        {F::gif,
         {{"dither", "heckbert"}},
         {"Dither \"heckbert\" is not a recognized paletteuse algorithm."}},
        {F::h264, {{"dither", "heckbert"}}, {}},
        {F::gif,
         {{"lossyMode", "level"}, {"lossyLevel", 201}},
         {"Lossy level 201 is outside 0–200."}},
        {F::gif, {{"lossyLevel", 500}}, {}},
        {F::h264,
         {{"scaleMode", "fitWidth"}, {"scaleValue", 1}},
         {"Scale target 1 px is below the 2 px minimum."}},
        {F::h264, {{"scaleValue", 1}}, {}},
        {F::h264,
         {{"quality", 99},
          {"fps", 0},
          {"speedPreset", "x"},
          {"scaleMode", "fitHeight"},
          {"scaleValue", 0}},
         {"Quality 99 is outside 0–63 for H.264.", "Frame rate 0 fps is outside 1–60 for H.264.",
          "Speed preset \"x\" is not a recognized x264/x265 preset.",
          "Scale target 0 px is below the 2 px minimum."}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.patch.dump());
        EXPECT_EQ(with(row.format, row.patch).validationErrors(row.format), row.errors);
    }
}

TEST(PresetParametersSanitizing, RepairsOnlyWhatTheFormatUses) {
    using F = PresetFormat;
    const json none = json::object();
    const struct {
        PresetFormat format;
        json input;
        std::set<std::string> noted;
        json expected;
        bool repaired;
    } rows[] = {
        {F::h264, none, {}, none, false},
        // A noted field that needs no step of its own still makes the record repaired.
        {F::h264, none, {"dither"}, none, true},
        {F::h264, {{"quality", 64}}, {}, {{"quality", 63}}, true},
        {F::h264VT, {{"quality", 0}}, {}, {{"quality", 1}}, true},
        {F::h265, {{"quality", 40}}, {"quality"}, {{"quality", 28}}, true},
        {F::vp9, {{"fps", 120}}, {}, {{"fps", 60}}, true},
        {F::h265, {{"speedPreset", "x"}}, {}, none, true},
        // Fields that don't apply to the format are left alone.
        {F::vp9, {{"speedPreset", "x"}}, {}, {{"speedPreset", "x"}}, false},
        {F::gif, {{"speedPreset", "x"}}, {}, {{"speedPreset", "x"}}, false},
        {F::gif, {{"dither", "heckbert"}}, {}, none, true},
        {F::av1, {{"dither", "heckbert"}}, {}, {{"dither", "heckbert"}}, false},
        {F::gif, {{"lossyLevel", 500}}, {}, {{"lossyLevel", 500}}, false},
        {F::gif,
         {{"lossyMode", "level"}, {"lossyLevel", 500}},
         {},
         {{"lossyMode", "level"}, {"lossyLevel", 200}},
         true},
        {F::gif,
         {{"scaleMode", "fitWidth"}, {"scaleValue", -4}},
         {},
         {{"scaleMode", "fitWidth"}, {"scaleValue", 2}},
         true},
        {F::h264, {{"scaleValue", -4}}, {}, {{"scaleValue", -4}}, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(rawValue(row.format)) + " " + row.input.dump());
        const PresetParameters::Sanitized result =
            with(row.format, row.input).sanitized(row.format, row.noted);
        EXPECT_EQ(result.parameters, with(row.format, row.expected));
        EXPECT_EQ(result.repaired, row.repaired);
        // Sanitised records pass validation.
        EXPECT_TRUE(result.parameters.validationErrors(row.format).empty());
    }
}

TEST(PresetParametersConversion, ScaleModesAndTheEvenRule) {
    struct Row {
        PresetFormat format;
        ScaleMode mode;
        int value;
        engine::Scale expected;
    };
    using F = PresetFormat;
    using engine::Scale;
    const std::vector<Row> rows = {
        {F::h264, ScaleMode::fitHeight, 481, Scale::fitHeight(480)},
        {F::gif, ScaleMode::fitHeight, 481, Scale::fitHeight(481)},
        {F::h264, ScaleMode::fitHeight, 1, Scale::fitHeight(2)},
        {F::gif, ScaleMode::fitHeight, 1, Scale::fitHeight(2)},
        {F::vp9, ScaleMode::fitWidth, 721, Scale::fitWidth(720)},
        {F::gif, ScaleMode::fitWidth, 721, Scale::fitWidth(721)},
        {F::h265, ScaleMode::p360, 1, Scale::fitHeight(360)},
        {F::gif, ScaleMode::p480, 7, Scale::fitHeight(480)},
        {F::av1, ScaleMode::p720, 720, Scale::fitHeight(720)},
        {F::h264, ScaleMode::p1080, 720, Scale::fitHeight(1080)},
        {F::h264, ScaleMode::original, 1, Scale::original()},
        {F::gif, ScaleMode::half, 1, Scale::half()},
        {F::gif, ScaleMode::third, 1, Scale::third()},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(rawValue(row.format)) + " " + std::string(rawValue(row.mode)));
        PresetParameters p = defaultParameters(row.format);
        p.scaleMode = row.mode;
        p.scaleValue = row.value;
        EXPECT_EQ(p.engineOptions(row.format).scale, row.expected);
    }
}

TEST(PresetParametersConversion, EngineOptionsPerFormat) {
    PresetParameters gif = defaultParameters(PresetFormat::gif);
    gif.fps.reset();
    gif.quality = 40;
    gif.lossyMode = LossyMode::level;
    gif.lossyLevel = 70;
    gif.dither = "bayer";
    gif.optimizeGif = false;
    const engine::ConversionOptions gifOptions = gif.engineOptions(PresetFormat::gif);
    EXPECT_EQ(gifOptions.format, engine::OutputFormat::gif());
    EXPECT_EQ(gifOptions.fps, 10);
    EXPECT_FALSE(gifOptions.crf.has_value());
    EXPECT_EQ(gifOptions.lossy, engine::GifLossy::atLevel(70));
    EXPECT_EQ(gifOptions.dither, "bayer");
    EXPECT_FALSE(gifOptions.optimizeGif);
    EXPECT_TRUE(gifOptions.trim.isEmpty());

    PresetParameters h265 = defaultParameters(PresetFormat::h265);
    h265.quality = 60;  // outside 0-51: clamped for the job
    h265.speedPreset = "slow";
    h265.lossyMode = LossyMode::defaultLevel;
    const engine::ConversionOptions h265Options = h265.engineOptions(PresetFormat::h265);
    EXPECT_EQ(h265Options.format, engine::OutputFormat::mp4(engine::VideoCodec::h265));
    EXPECT_EQ(h265Options.crf, 51);
    EXPECT_FALSE(h265Options.fps.has_value());
    EXPECT_EQ(h265Options.preset, "slow");
    EXPECT_EQ(h265Options.lossy, engine::GifLossy::defaultLossiness());

    EXPECT_EQ(defaultParameters(PresetFormat::vp9).engineOptions(PresetFormat::vp9).format,
              engine::OutputFormat::webm(engine::VideoCodec::vp9));
    EXPECT_EQ(defaultParameters(PresetFormat::hevcVT).engineOptions(PresetFormat::hevcVT).crf, 50);
}

// Every built-in survives the trip to parameters and back into the same options.
TEST(PresetParametersConversion, BuiltinsRoundTripThroughParameters) {
    for (const engine::Preset& builtin : engine::Preset::builtins()) {
        SCOPED_TRACE(builtin.id);
        const PresetFormat format = presetFormat(builtin.options.format);
        const PresetParameters p = parameters(builtin, format);
        EXPECT_TRUE(p.validationErrors(format).empty());
        engine::ConversionOptions expected = builtin.options;
        if (!expected.format.isGif() && !expected.crf) {
            expected.crf = defaultQuality(format);
        }
        EXPECT_EQ(p.engineOptions(format), expected);
    }
    const PresetParameters gifSmall = parameters(engine::Preset::gifSmall(), PresetFormat::gif);
    EXPECT_EQ(gifSmall.lossyMode, LossyMode::defaultLevel);
    EXPECT_EQ(gifSmall.lossyLevel, 20);
    EXPECT_EQ(gifSmall.fps, 6);
    EXPECT_EQ(gifSmall.quality, 0);
    EXPECT_EQ(parameters(engine::Preset::mp4AV1(), PresetFormat::av1).quality, 32);

    engine::Preset sized = engine::Preset::mp4H264();
    sized.options.scale = engine::Scale::fitHeight(720);
    const PresetParameters fromSized = parameters(sized, PresetFormat::h264);
    EXPECT_EQ(fromSized.scaleMode, ScaleMode::fitHeight);  // never p720
    EXPECT_EQ(fromSized.scaleValue, 720);
    sized.options.lossy = engine::GifLossy::atLevel(90);
    EXPECT_EQ(parameters(sized, PresetFormat::h264).lossyLevel, 90);
}

TEST(PresetFormat, TableFacts) {
    std::vector<std::string> raw;
    for (const PresetFormat format : kAllPresetFormats) {
        raw.emplace_back(rawValue(format));
        EXPECT_EQ(presetFormatFromRawValue(rawValue(format)), format);
        EXPECT_EQ(presetFormat(outputFormat(format)), format);
        EXPECT_TRUE(qualityRange(format).contains(defaultQuality(format)));
    }
    EXPECT_EQ(raw,
              (std::vector<std::string>{"gif", "h264", "h265", "av1", "vp9", "h264VT", "hevcVT"}));
    EXPECT_FALSE(presetFormatFromRawValue("H264").has_value());
    EXPECT_EQ(presetFormat(engine::OutputFormat::webm(engine::VideoCodec::av1)), PresetFormat::vp9);
    EXPECT_EQ(fileExtension(PresetFormat::vp9), "webm");
    EXPECT_EQ(fileExtension(PresetFormat::gif), "gif");
    EXPECT_EQ(fileExtension(PresetFormat::hevcVT), "mp4");
}

}  // namespace
}  // namespace tessarin::presets
