// Modified-base calls. What is written is read back by an independent reader, and holds
// the calls that a search for every motif, letter by letter, finds; a view with steps
// gives the same as a plain array; and the context's text form comes back.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "data_wrappers/vec_view.h"
#include "fuzz/target.h"
#include "tests/support/annotation_readers.h"
#include "tests/support/text.h"
#include "util/bam/bam_file.h"

namespace {

using tesk::test::ModGroup;
using tesk::util::bam::BAMFileHandler;
using tesk::util::bam::BaseModContext;
using ByteView = tesk::data_wrappers::VecView<unsigned char>;

constexpr std::string_view BASES = "ACGT";
constexpr std::size_t MAX_CHANNELS = 64;  // the search takes their square

struct Input {
    std::uint8_t threshold = 0;
    std::size_t stride = 1;
    std::string alphabet;
    std::string names;
    std::string context;
    std::string sequence;
    std::vector<std::uint8_t> probs;  // with steps of `stride`
};

// Two numbers; four texts, the first three of which end at a NUL; then the
// probabilities are the bytes of all, again and again.
Input make_input(std::string_view bytes) {
    Input input;
    if (bytes.size() < 2) return input;
    input.threshold = static_cast<std::uint8_t>(bytes[0]);
    input.stride = 1 + static_cast<unsigned char>(bytes[1]) % 3;
    std::vector<std::string_view> const texts = tesk::test::split(bytes.substr(2), '\0');
    std::string* const targets[] = {&input.alphabet, &input.names, &input.context};
    for (std::size_t i = 0; i < 3 && i < texts.size(); ++i) *targets[i] = texts[i];
    input.alphabet.resize(std::min(input.alphabet.size(), MAX_CHANNELS));
    for (std::size_t i = 3; i < texts.size(); ++i) {
        // Nearly all letters become bases, so that reads are worth calling.
        for (char const c : texts[i]) input.sequence += c == 'N' ? c : BASES[c & 3];
    }
    std::size_t const n = input.sequence.size() * input.alphabet.size() * input.stride;
    for (std::size_t i = 0; i < n; ++i) {
        input.probs.push_back(static_cast<std::uint8_t>(bytes[(i * 7) % bytes.size()]));
    }
    return input;
}

// Whether a base is called by its context. A motif that ends with the read is not seen.
bool is_in_context(std::string const& sequence, std::size_t position, std::string const& motif,
                   std::size_t offset) {
    return position >= offset && position - offset + motif.size() < sequence.size() &&
           sequence.compare(position - offset, motif.size(), motif) == 0;
}

// The calls of a read, found position by position.
std::vector<std::string> expected_calls(Input const& input, BaseModContext const& context) {
    std::size_t const n_channels = input.alphabet.size();
    auto const prob = [&](std::size_t position, std::size_t channel) -> unsigned {
        return input.probs[(position * n_channels + channel) * input.stride];
    };
    auto const base_of = [&](std::size_t channel) {
        std::size_t c = channel;
        while (BASES.find(input.alphabet[c]) == std::string_view::npos) --c;
        return input.alphabet[c];
    };
    auto const is_modification = [&](std::size_t channel) {
        return BASES.find(input.alphabet[channel]) == std::string_view::npos;
    };
    std::vector<std::string> groups;
    for (std::size_t channel = 0; channel < n_channels; ++channel) {
        if (!is_modification(channel)) continue;
        char const base = base_of(channel);
        std::string const& motif = context.motif(base);
        std::string calls;
        for (std::size_t i = 0; i < input.sequence.size(); ++i) {
            if (input.sequence[i] != base) continue;
            bool is_called = !motif.empty() &&
                             is_in_context(input.sequence, i, motif, context.motif_offset(base));
            for (std::size_t c = 0; c < n_channels && motif.empty(); ++c) {
                is_called = is_called || (is_modification(c) && base_of(c) == base &&
                                          prob(i, c) >= input.threshold);
            }
            if (is_called) {
                calls += ' ' + std::to_string(i) + ':' + std::to_string(prob(i, channel));
            }
        }
        groups.push_back(calls);
    }
    return groups;
}

std::vector<std::string> calls_of(std::vector<ModGroup> const& groups) {
    std::vector<std::string> texts;
    for (ModGroup const& group : groups) {
        std::string text;
        for (auto const& call : group.calls) {
            text += ' ' + std::to_string(call.position) + ':' + std::to_string(call.probability);
        }
        texts.push_back(text);
    }
    return texts;
}

// The fields, or nothing where the input is refused.
std::string generate(Input const& input, ByteView const& probs) {
    std::string fields;
    std::string error;
    try {
        bool const done = BAMFileHandler::generate_modbase_string(
            fields, input.sequence, input.alphabet, input.names, input.context, probs,
            input.threshold, error);
        return done ? fields : "";
    } catch (std::out_of_range const&) {
        return "";  // a letter that is no base
    } catch (std::runtime_error const&) {
        return "";  // no context
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Input const input = make_input({reinterpret_cast<char const*>(data), size});
    ByteView const probs{input.probs.data(), input.probs.size() / input.stride, input.stride};
    std::string const fields = generate(input, probs);

    std::vector<std::uint8_t> plain;
    for (std::size_t i = 0; i < probs.size; ++i) plain.push_back(probs[i]);
    tesk::fuzz::require_same(fields, generate(input, {plain.data(), plain.size(), 1}),
                             "a view with steps gives the same as an array");
    if (fields.empty()) return 0;

    BaseModContext context;
    if (!input.context.empty()) {
        tesk::fuzz::require(context.decode(input.context), "a context that was used decodes");
        BaseModContext again;
        tesk::fuzz::require(again.decode(context.encode()), "an encoded context decodes");
        tesk::fuzz::require_same(context.encode(), again.encode(), "a context comes back");
    }
    std::vector<std::string> const expected = expected_calls(input, context);
    std::vector<std::string> const found =
        calls_of(tesk::test::read_modified_bases(fields, input.sequence));
    tesk::fuzz::require(expected.size() == found.size(), "every modification has its group");
    for (std::size_t i = 0; i < expected.size(); ++i) {
        tesk::fuzz::require_same(expected[i], found[i], "calls are those of a plain search");
    }
    return 0;
}
