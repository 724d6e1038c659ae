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
    const PresetParameters fallback;
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.key) + " = " + row.wrong.dump());
        json stored = sound;
        stored[row.key] = row.wrong;
        const Decoded decoded = decode(stored);
        EXPECT_EQ(decoded.noted, std::set<std::string>{row.key});

        PresetParameters expected = soundDecoded;
        const std::string key = row.key;
        if (key == "quality")
            expected.quality = fallback.quality;
        if (key == "fps")
            expected.fps = fallback.fps;
        if (key == "scaleMode")
            expected.scaleMode = fallback.scaleMode;
        if (key == "scaleValue")
            expected.scaleValue = fallback.scaleValue;
        if (key == "speedPreset")
            expected.speedPreset = fallback.speedPreset;
        if (key == "dither")
            expected.dither = fallback.dither;
        if (key == "lossyMode")
            expected.lossyMode = fallback.lossyMode;
        if (key == "lossyLevel")
            expected.lossyLevel = fallback.lossyLevel;
        if (key == "optimizeGif")
            expected.optimizeGif = fallback.optimizeGif;
        EXPECT_EQ(decoded.parameters, expected);
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

struct ValidationCase {
    PresetFormat format;
    PresetParameters parameters;
    std::vector<std::string> errors;
};

PresetParameters with(PresetFormat format, const std::function<void(PresetParameters&)>& change) {
    PresetParameters p = defaultParameters(format);
    change(p);
    return p;
}

TEST(PresetParametersValidation, SentencesPerFormat) {
    using F = PresetFormat;
    const std::vector<ValidationCase> rows = {
        {F::h264, defaultParameters(F::h264), {}},
        {F::h264,
         with(F::h264, [](auto& p) { p.quality = 64; }),
         {"Quality 64 is outside 0–63 for H.264."}},
        {F::h264, with(F::h264, [](auto& p) { p.quality = 63; }), {}},
        {F::h265,
         with(F::h265, [](auto& p) { p.quality = 52; }),
         {"Quality 52 is outside 0–51 for H.265."}},
        {F::h264VT,
         with(F::h264VT, [](auto& p) { p.quality = 0; }),
         {"Quality 0 is outside 1–100 for H.264 hardware."}},
        {F::hevcVT, with(F::hevcVT, [](auto& p) { p.quality = 100; }), {}},
        {F::gif,
         with(F::gif, [](auto& p) { p.quality = -1; }),
         {"Quality -1 is outside 0–63 for GIF."}},
        {F::av1,
         with(F::av1, [](auto& p) { p.fps = 61; }),
         {"Frame rate 61 fps is outside 1–60 for AV1."}},
        {F::h265,
         with(F::h265, [](auto& p) { p.speedPreset = "ludicrous"; }),
         {"Speed preset \"ludicrous\" is not a recognized x264/x265 preset."}},
        {F::vp9, with(F::vp9, [](auto& p) { p.speedPreset = "ludicrous"; }), {}},
        {F::gif,
         with(F::gif, [](auto& p) { p.dither = "heckbert"; }),
         {"Dither \"heckbert\" is not a recognized paletteuse algorithm."}},
        {F::h264, with(F::h264, [](auto& p) { p.dither = "heckbert"; }), {}},
        {F::gif,
         with(F::gif,
              [](auto& p) {
                  p.lossyMode = LossyMode::level;
                  p.lossyLevel = 201;
              }),
         {"Lossy level 201 is outside 0–200."}},
        {F::gif, with(F::gif, [](auto& p) { p.lossyLevel = 500; }), {}},
        {F::h264,
         with(F::h264,
              [](auto& p) {
                  p.scaleMode = ScaleMode::fitWidth;
                  p.scaleValue = 1;
              }),
         {"Scale target 1 px is below the 2 px minimum."}},
        {F::h264, with(F::h264, [](auto& p) { p.scaleValue = 1; }), {}},
        {F::h264,
         with(F::h264,
              [](auto& p) {
                  p.quality = 99;
                  p.fps = 0;
                  p.speedPreset = "x";
                  p.scaleMode = ScaleMode::fitHeight;
                  p.scaleValue = 0;
              }),
         {"Quality 99 is outside 0–63 for H.264.", "Frame rate 0 fps is outside 1–60 for H.264.",
          "Speed preset \"x\" is not a recognized x264/x265 preset.",
          "Scale target 0 px is below the 2 px minimum."}},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(rows[i].parameters.validationErrors(rows[i].format), rows[i].errors);
    }
}

struct SanitizeCase {
    PresetFormat format;
    PresetParameters input;
    std::set<std::string> noted;
    PresetParameters expected;
    bool repaired;
};

TEST(PresetParametersSanitizing, RepairsOnlyWhatTheFormatUses) {
    using F = PresetFormat;
    const std::vector<SanitizeCase> rows = {
        {F::h264, defaultParameters(F::h264), {}, defaultParameters(F::h264), false},
        // A noted field that needs no step of its own still makes the record repaired.
        {F::h264, defaultParameters(F::h264), {"dither"}, defaultParameters(F::h264), true},
        {F::h264,
         with(F::h264, [](auto& p) { p.quality = 64; }),
         {},
         with(F::h264, [](auto& p) { p.quality = 63; }),
         true},
        {F::h264VT,
         with(F::h264VT, [](auto& p) { p.quality = 0; }),
         {},
         with(F::h264VT, [](auto& p) { p.quality = 1; }),
         true},
        {F::h265,
         with(F::h265, [](auto& p) { p.quality = 40; }),
         {"quality"},
         with(F::h265, [](auto& p) { p.quality = 28; }),
         true},
        {F::vp9,
         with(F::vp9, [](auto& p) { p.fps = 120; }),
         {},
         with(F::vp9, [](auto& p) { p.fps = 60; }),
         true},
        {F::h265,
         with(F::h265, [](auto& p) { p.speedPreset = "x"; }),
         {},
         defaultParameters(F::h265),
         true},
        // Fields that don't apply to the format are left alone.
        {F::vp9,
         with(F::vp9, [](auto& p) { p.speedPreset = "x"; }),
         {},
         with(F::vp9, [](auto& p) { p.speedPreset = "x"; }),
         false},
        {F::gif,
         with(F::gif, [](auto& p) { p.speedPreset = "x"; }),
         {},
         with(F::gif, [](auto& p) { p.speedPreset = "x"; }),
         false},
        {F::gif,
         with(F::gif, [](auto& p) { p.dither = "heckbert"; }),
         {},
         defaultParameters(F::gif),
         true},
        {F::av1,
         with(F::av1, [](auto& p) { p.dither = "heckbert"; }),
         {},
         with(F::av1, [](auto& p) { p.dither = "heckbert"; }),
         false},
        {F::gif,
         with(F::gif, [](auto& p) { p.lossyLevel = 500; }),
         {},
         with(F::gif, [](auto& p) { p.lossyLevel = 500; }),
         false},
        {F::gif,
         with(F::gif,
              [](auto& p) {
                  p.lossyMode = LossyMode::level;
                  p.lossyLevel = 500;
              }),
         {},
         with(F::gif,
              [](auto& p) {
                  p.lossyMode = LossyMode::level;
                  p.lossyLevel = 200;
              }),
         true},
        {F::gif,
         with(F::gif,
              [](auto& p) {
                  p.scaleMode = ScaleMode::fitWidth;
                  p.scaleValue = -4;
              }),
         {},
         with(F::gif,
              [](auto& p) {
                  p.scaleMode = ScaleMode::fitWidth;
                  p.scaleValue = 2;
              }),
         true},
        {F::h264,
         with(F::h264, [](auto& p) { p.scaleValue = -4; }),
         {},
         with(F::h264, [](auto& p) { p.scaleValue = -4; }),
         false},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(i);
        const PresetParameters::Sanitized result =
            rows[i].input.sanitized(rows[i].format, rows[i].noted);
        EXPECT_EQ(result.parameters, rows[i].expected);
        EXPECT_EQ(result.repaired, rows[i].repaired);
        // Sanitised records pass validation.
        EXPECT_TRUE(result.parameters.validationErrors(rows[i].format).empty());
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
