/// Changes inputs so that they keep their form: whole steps, messages of a schema, signals of the table. What
/// is not known, and every third change, is left to the fuzzer, so that malformed inputs are tried too.
#include "fuzzTarget.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/message.h>
#include <limits>
#include <memory>
#include <random>
#include <string_view>
#include <unordered_map>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace fuzz {

namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using View = std::span<const std::uint8_t>;

// Forms

/// By the hash of the input. What is not here is found out again.
std::unordered_map<std::size_t, Form>& knownForms()
{
    static std::unordered_map<std::size_t, Form> forms;
    return forms;
}

std::size_t hashOf(View bytes)
{
    return std::hash<std::string_view>()({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

const Form& learn(View bytes)
{
    constexpr std::size_t most = 50'000;
    auto& forms = knownForms();
    if (forms.size() >= most) {
        forms.clear();
    }
    return forms.insert_or_assign(hashOf(bytes), runOn(bytes)).first->second;
}

const Form& formOf(View bytes)
{
    const auto found = knownForms().find(hashOf(bytes));
    return found != knownForms().end() && found->second.end <= bytes.size() ? found->second : learn(bytes);
}

/// For a comparison: all is left to the fuzzer.
bool isOff()
{
    static const bool off = std::getenv("MERLOW_FUZZ_RAW") != nullptr;
    return off;
}

// Chance

class Dice {
public:
    explicit Dice(unsigned int seed) : m_random(seed) {}

    std::size_t below(std::size_t limit) { return m_random() % limit; }
    bool oneIn(std::size_t count) { return below(count) == 0; }
    template <class List> const auto& of(const List& list) { return list[below(std::size(list))]; }

    std::uint64_t number()
    {
        constexpr std::array<std::uint64_t, 16> edges = {0,
                                                         1,
                                                         2,
                                                         0x7F,
                                                         0x80,
                                                         0xFF,
                                                         0x100,
                                                         0x7FFF,
                                                         0x8000,
                                                         0xFFFF,
                                                         0x10000,
                                                         0x7FFFFFFF,
                                                         0x80000000,
                                                         0xFFFFFFFF,
                                                         std::numeric_limits<std::int64_t>::max(),
                                                         std::numeric_limits<std::uint64_t>::max()};
        switch (below(3)) {
        case 0:
            return of(edges);
        case 1:
            return below(300);
        default:
            return std::uint64_t{m_random()} << below(40) ^ m_random();
        }
    }
    std::string text()
    {
        constexpr std::array<std::string_view, 12> odd = {
            "",     "\xC3",  "\xFF\xFE", "\xED\xA0\x80",  std::string_view("\0a", 2),
            "%s%n", "../..", "\x1b[2J",  "QXR7041162/15", "R91KT",
            "\n",   "-1"};
        constexpr std::array<std::size_t, 8> lengths = {1, 7, 15, 16, 31, 116, 255, 1000};
        switch (below(3)) {
        case 0:
            return std::string(of(odd));
        case 1:
            return std::string(of(lengths) + below(3), static_cast<char>(below(256)));
        default: {
            std::string letters(below(20), ' ');
            for (char& letter : letters) {
                letter = static_cast<char>(below(oneIn(4) ? 256 : 96) + 32);
            }
            return letters;
        }
        }
    }

private:
    std::minstd_rand m_random;
};

// Messages

/// Fields of one message, and of those in it.
class MessageChange {
public:
    explicit MessageChange(Dice& dice) : m_dice(dice) {}

    void change(Message& message, unsigned int depth = 0)
    {
        const auto& type = *message.GetDescriptor();
        const Reflection& access = *message.GetReflection();
        if (type.field_count() == 0 || m_dice.oneIn(24)) {
            access.MutableUnknownFields(&message)->AddVarint(static_cast<int>(1 + m_dice.below(40)),
                                                             m_dice.number());
            return;
        }
        const FieldDescriptor& field =
            *type.field(static_cast<int>(m_dice.below(static_cast<std::size_t>(type.field_count()))));
        if (field.is_repeated()) {
            changeList(message, field, depth);
        } else if (access.HasField(message, &field) && m_dice.oneIn(6)) {
            access.ClearField(&message, &field);
        } else if (field.cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE) {
            changeInner(*access.MutableMessage(&message, &field), depth);
        } else {
            set(message, field);
        }
    }
    /// With anything in its fields.
    void fill(Message& message, unsigned int depth = 0)
    {
        const auto& type = *message.GetDescriptor();
        for (int i = 0; i < type.field_count(); ++i) {
            const FieldDescriptor& field = *type.field(i);
            const std::size_t count = field.is_repeated() ? m_dice.below(4) : 1;
            for (std::size_t added = 0; added < count; ++added) {
                add(message, field, depth);
            }
        }
    }

private:
    static constexpr unsigned int deepest = 4;

    void changeInner(Message& inner, unsigned int depth)
    {
        if (depth < deepest) {
            m_dice.oneIn(8) ? fill(inner, depth + 1) : change(inner, depth + 1);
        }
    }
    void changeList(Message& message, const FieldDescriptor& field, unsigned int depth)
    {
        const Reflection& access = *message.GetReflection();
        const int size = access.FieldSize(message, &field);
        const auto any = [&] {
            return static_cast<int>(m_dice.below(static_cast<std::size_t>(size)));
        };
        const std::size_t what = size == 0 ? 0 : m_dice.below(8);
        if (what == 1) {
            access.RemoveLast(&message, &field);
        } else if (what == 2) {
            access.SwapElements(&message, &field, any(), any());
        } else if (what == 3) {
            access.ClearField(&message, &field);
        } else if (what >= 4 && field.cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE) {
            Message& inner = *access.MutableRepeatedMessage(&message, &field, any());
            if (what == 4) { // once more
                Message& copy = *access.AddMessage(&message, &field);
                copy.CopyFrom(access.GetRepeatedMessage(message, &field, any()));
            } else {
                changeInner(inner, depth);
            }
        } else {
            const std::size_t count = m_dice.oneIn(10) ? 1 + m_dice.below(70) : 1;
            for (std::size_t i = 0; i < count; ++i) {
                add(message, field, depth);
            }
        }
    }
    void add(Message& message, const FieldDescriptor& field, unsigned int depth)
    {
        if (field.cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE) {
            set(message, field);
        } else if (depth < deepest) {
            const Reflection& access = *message.GetReflection();
            fill(field.is_repeated() ? *access.AddMessage(&message, &field)
                                     : *access.MutableMessage(&message, &field),
                 depth + 1);
        }
    }
    /// Sets a value, or adds it to a list.
    void set(Message& message, const FieldDescriptor& field)
    {
        const Reflection& access = *message.GetReflection();
        const auto put = [&](auto value, auto one, auto another) {
            if (field.is_repeated()) {
                (access.*another)(&message, &field, value);
            } else {
                (access.*one)(&message, &field, value);
            }
        };
        const std::uint64_t number = m_dice.number();
        switch (field.cpp_type()) {
        case FieldDescriptor::CPPTYPE_INT32:
            return put(static_cast<std::int32_t>(number), &Reflection::SetInt32, &Reflection::AddInt32);
        case FieldDescriptor::CPPTYPE_INT64:
            return put(static_cast<std::int64_t>(number), &Reflection::SetInt64, &Reflection::AddInt64);
        case FieldDescriptor::CPPTYPE_UINT32:
            return put(static_cast<std::uint32_t>(number), &Reflection::SetUInt32, &Reflection::AddUInt32);
        case FieldDescriptor::CPPTYPE_UINT64:
            return put(number, &Reflection::SetUInt64, &Reflection::AddUInt64);
        case FieldDescriptor::CPPTYPE_DOUBLE:
            return put(realOf<double>(number), &Reflection::SetDouble, &Reflection::AddDouble);
        case FieldDescriptor::CPPTYPE_FLOAT:
            return put(realOf<float>(number), &Reflection::SetFloat, &Reflection::AddFloat);
        case FieldDescriptor::CPPTYPE_BOOL:
            return put(number % 2 == 0, &Reflection::SetBool, &Reflection::AddBool);
        case FieldDescriptor::CPPTYPE_ENUM: {
            const auto& type = *field.enum_type();
            const int known =
                type.value(static_cast<int>(m_dice.below(static_cast<std::size_t>(type.value_count()))))
                    ->number();
            return put(m_dice.oneIn(4) ? static_cast<int>(number) : known, &Reflection::SetEnumValue,
                       &Reflection::AddEnumValue);
        }
        case FieldDescriptor::CPPTYPE_STRING:
            return put(m_dice.text(), &Reflection::SetString, &Reflection::AddString);
        case FieldDescriptor::CPPTYPE_MESSAGE:
            return;
        }
    }
    template <class Real> Real realOf(std::uint64_t number)
    {
        using Limits = std::numeric_limits<Real>;
        const std::array<Real, 6> odd = {Limits::quiet_NaN(), Limits::infinity(),   -Limits::infinity(),
                                         Limits::max(),       Limits::denorm_min(), Real{-0.0}};
        return m_dice.oneIn(2) ? m_dice.of(odd) : static_cast<Real>(static_cast<std::int64_t>(number));
    }

    Dice& m_dice;
};

Bytes changedByFuzzer(Bytes bytes, std::size_t more)
{
    const std::size_t size = bytes.size();
    bytes.resize(size + more);
    bytes.resize(LLVMFuzzerMutate(bytes.data(), size, bytes.size()));
    return bytes;
}

/// Of a body as it was, or of none.
Bytes changedMessage(Dice& dice, const google::protobuf::Descriptor& type, const Bytes& body, bool isOther)
{
    const std::unique_ptr<Message> message(
        google::protobuf::MessageFactory::generated_factory()->GetPrototype(&type)->New());
    MessageChange change(dice);
    static_cast<void>(message->ParsePartialFromArray(body.data(), static_cast<int>(body.size())));
    if (isOther || dice.oneIn(12)) {
        message->Clear();
        change.fill(*message);
    }
    for (std::size_t i = 0, count = 1 + dice.below(3); i < count; ++i) {
        change.change(*message);
    }
    const std::string text = message->SerializePartialAsString();
    return {text.begin(), text.end()};
}

/// Of the right length, or nearly so; a field or a text in it is another one.
Bytes changedSignal(Dice& dice, const SchemaMessage& row, std::size_t headSize, Bytes body)
{
    const std::size_t right = row.size > headSize ? row.size - headSize : 0;
    if (body.size() < right || dice.oneIn(8)) {
        body.resize(right);
    }
    if (dice.oneIn(6)) {
        body.resize(right + dice.below(40));
    } else if (dice.oneIn(6)) {
        body.resize(right - std::min(right, 1 + dice.below(5)));
    }
    for (std::size_t i = 0, count = 1 + dice.below(3); i < count && !body.empty(); ++i) {
        if (dice.oneIn(4)) {
            const std::string text = dice.text();
            const std::size_t at = dice.below(body.size());
            std::copy_n(text.begin(), std::min(text.size(), body.size() - at),
                        body.begin() + static_cast<std::ptrdiff_t>(at));
            continue;
        }
        const std::size_t width = std::size_t{1} << dice.below(3);
        const std::size_t at = dice.below(body.size()) / width * width;
        const std::uint64_t number = dice.number();
        for (std::size_t byte = 0; byte < width && at + byte < body.size(); ++byte) {
            body[at + byte] = static_cast<std::uint8_t>(number >> (8 * (width - 1 - byte)));
        }
    }
    return body;
}

// Inputs

class Change {
public:
    Change(View bytes, const Form& form, Dice& dice) : m_bytes(bytes), m_form(form), m_dice(dice) {}

    Bytes make()
    {
        if (!m_form.places.empty() && (m_form.steps.empty() || !m_dice.oneIn(3))) {
            return withMessage(m_dice.of(m_form.places));
        }
        return withSteps();
    }
    /// Some steps of another input between these.
    Bytes withStepsOf(View other, const Form& otherForm)
    {
        const std::size_t first = m_dice.below(otherForm.steps.size());
        const std::size_t count = 1 + m_dice.below(std::min<std::size_t>(otherForm.steps.size() - first, 8));
        const std::size_t begin = otherForm.steps[first];
        return spliced(somewhere(), 0, other.subspan(begin, endOf(otherForm, first + count - 1) - begin));
    }

private:
    static std::size_t endOf(const Form& form, std::size_t step)
    {
        return step + 1 < form.steps.size() ? form.steps[step + 1] : form.end;
    }
    std::size_t somewhere()
    {
        const std::size_t at = m_dice.below(m_form.steps.size() + 1);
        return at < m_form.steps.size() ? m_form.steps[at] : m_form.end;
    }
    /// With `added` in place of what is there.
    [[nodiscard]] Bytes spliced(std::size_t at, std::size_t size, View added) const
    {
        Bytes bytes(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(at));
        bytes.insert(bytes.end(), added.begin(), added.end());
        bytes.insert(bytes.end(), m_bytes.begin() + static_cast<std::ptrdiff_t>(at + size), m_bytes.end());
        return bytes;
    }

    Bytes withMessage(const Place& place)
    {
        std::uint8_t choice = m_bytes[place.choiceAt];
        const bool isOther = m_dice.oneIn(6);
        if (isOther) {
            choice =
                static_cast<std::uint8_t>(m_dice.below(std::min<std::size_t>(place.schema->size(), 256)));
        }
        const SchemaMessage& message = (*place.schema)[choice % place.schema->size()];
        const auto old = m_bytes.subspan(place.bodyAt, place.bodySize);
        Bytes body(old.begin(), old.end());
        if (m_dice.oneIn(8)) {
            body = changedByFuzzer(std::move(body), 64);
        } else if (message.type != nullptr) {
            body = changedMessage(m_dice, *message.type, body, isOther);
        } else {
            body = changedSignal(m_dice, message, place.headSize, std::move(body));
        }
        // From its first byte on, as it was but for the choice.
        Bytes bytes(m_bytes.begin() + static_cast<std::ptrdiff_t>(place.howAt),
                    m_bytes.begin() + static_cast<std::ptrdiff_t>(place.lengthAt));
        bytes[place.choiceAt - place.howAt] = choice;
        if (place.isShort && !m_dice.oneIn(4)) {
            bytes = {static_cast<std::uint8_t>(Input::shortHead | (m_dice.oneIn(4) ? 0U : 1U)), choice};
        }
        if (place.isBlock) {
            putLength(bytes, body.size());
        }
        bytes.insert(bytes.end(), body.begin(), body.end());
        return spliced(place.howAt, place.bodyAt + place.bodySize - place.howAt, bytes);
    }
    static void putLength(Bytes& bytes, std::size_t size)
    {
        if (size < Input::longBlock) {
            bytes.push_back(static_cast<std::uint8_t>(size));
            return;
        }
        bytes.push_back(Input::longBlock);
        bytes.push_back(static_cast<std::uint8_t>(size));
        bytes.push_back(static_cast<std::uint8_t>(size >> 8U));
    }
    Bytes withSteps()
    {
        const std::size_t chosen = m_dice.below(m_form.steps.size());
        const std::size_t at = m_form.steps[chosen];
        const std::size_t size = endOf(m_form, chosen) - at;
        const View step = m_bytes.subspan(at, size);
        switch (m_dice.below(6)) {
        case 0:
            return spliced(at, size, {});
        case 1:
            return spliced(somewhere(), 0, step);
        case 2: // a new one
            return spliced(somewhere(), 0,
                           changedByFuzzer({static_cast<std::uint8_t>(m_dice.below(256))}, 24));
        case 3: { // what stands before all steps
            const View start = m_bytes.first(m_form.steps.front());
            return spliced(0, start.size(), changedByFuzzer({start.begin(), start.end()}, 2));
        }
        default:
            return spliced(at, size, changedByFuzzer({step.begin(), step.end()}, 16));
        }
    }

    View m_bytes;
    const Form& m_form;
    Dice& m_dice;
};

/// Back into the fuzzer's block; 0 when it does not fit.
std::size_t give(const Bytes& bytes, std::uint8_t* data, std::size_t maxSize)
{
    if (bytes.size() > maxSize) {
        return 0;
    }
    std::copy(bytes.begin(), bytes.end(), data);
    return bytes.size();
}

bool hasForm(const Form& form)
{
    return !form.steps.empty() || !form.places.empty();
}

} // namespace
} // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::learn({data, size});
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize,
                                               unsigned int seed)
{
    fuzz::Dice dice(seed);
    if (!fuzz::isOff() && size > 0 && !dice.oneIn(3)) {
        const fuzz::Form& form = fuzz::formOf({data, size});
        if (fuzz::hasForm(form)) {
            const fuzz::Bytes bytes = fuzz::Change({data, size}, form, dice).make();
            if (const std::size_t changed = fuzz::give(bytes, data, maxSize); changed != 0) {
                return changed;
            }
        }
    }
    return LLVMFuzzerMutate(data, size, maxSize);
}

extern "C" std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* data, std::size_t size,
                                                 const std::uint8_t* other, std::size_t otherSize,
                                                 std::uint8_t* out, std::size_t maxSize, unsigned int seed)
{
    fuzz::Dice dice(seed);
    if (fuzz::isOff() || size == 0 || otherSize == 0 || !dice.oneIn(3)) {
        return 0; // the fuzzer goes on to the mutator
    }
    const fuzz::Form form = fuzz::formOf({data, size}); // the next may have it forgotten
    const fuzz::Form& otherForm = fuzz::formOf({other, otherSize});
    if (form.steps.empty() || otherForm.steps.empty()) {
        return 0;
    }
    return fuzz::give(fuzz::Change({data, size}, form, dice).withStepsOf({other, otherSize}, otherForm), out,
                      maxSize);
}
