#include "facts/text_country.h"

#include <algorithm>
#include <unordered_map>

namespace {

// Countries, by what points to them, and what their "$" and "kr" mean.
struct CountryClue {
  std::u16string_view folded;  // a word group of the folded text
  std::u16string_view country;
};
const CountryClue kCountryClues[] = {
    {u"deutschland", u"DE"}, {u"germany", u"DE"},     {u"allemagne", u"DE"},
    {u"osterreich", u"AT"},  {u"austria", u"AT"},     {u"schweiz", u"CH"},
    {u"suisse", u"CH"},      {u"switzerland", u"CH"}, {u"france", u"FR"},
    {u"italia", u"IT"},      {u"italy", u"IT"},       {u"espana", u"ES"},
    {u"spain", u"ES"},       {u"nederland", u"NL"},   {u"netherlands", u"NL"},
    {u"belgique", u"BE"},    {u"belgie", u"BE"},      {u"united kingdom", u"GB"},
    {u"england", u"GB"},     {u"united states", u"US"}, {u"usa", u"US"},
    {u"new zealand", u"NZ"}, {u"australia", u"AU"},   {u"canada", u"CA"},
    {u"india", u"IN"},       {u"sverige", u"SE"},     {u"sweden", u"SE"},
    {u"norge", u"NO"},       {u"norway", u"NO"},      {u"danmark", u"DK"},
    {u"denmark", u"DK"},     {u"co nz", u"NZ"},       {u"com au", u"AU"},
    {u"co uk", u"GB"},       {u"co in", u"IN"},
    // The largest cities of the countries whose currency is a dollar or
    // whose documents name no currency by its code.
    {u"auckland", u"NZ"},    {u"wellington", u"NZ"},  {u"christchurch", u"NZ"},
    {u"sydney", u"AU"},      {u"melbourne", u"AU"},   {u"brisbane", u"AU"},
    {u"toronto", u"CA"},     {u"montreal", u"CA"},    {u"vancouver", u"CA"},
    {u"mumbai", u"IN"},      {u"bangalore", u"IN"},   {u"bengaluru", u"IN"},
    {u"new delhi", u"IN"},   {u"new york", u"US"},    {u"california", u"US"},
    // Numbers that only one country's businesses print: the Australian and
    // New Zealand business numbers, New Zealand's tax office number, India's
    // GST id, Canada's harmonized and Quebec sales taxes.
    {u"abn", u"AU"},         {u"acn", u"AU"},         {u"nzbn", u"NZ"},
    {u"ird", u"NZ"},         {u"gstin", u"IN"},       {u"hst", u"CA"},
    {u"qst", u"CA"},         {u"nsw", u"AU"},         {u"qld", u"AU"},
};
// Phone prefixes as printed ("+49"), VAT id prefixes ("DE123456789").
const CountryClue kPhonePrefixes[] = {
    {u"+49", u"DE"}, {u"+43", u"AT"}, {u"+41", u"CH"}, {u"+33", u"FR"}, {u"+39", u"IT"},
    {u"+34", u"ES"}, {u"+31", u"NL"}, {u"+32", u"BE"}, {u"+44", u"GB"}, {u"+1 ", u"US"},
    {u"+64", u"NZ"}, {u"+61", u"AU"}, {u"+91", u"IN"}, {u"+46", u"SE"}, {u"+47", u"NO"},
    {u"+45", u"DK"},
};

// The prefixes of European VAT ids.
constexpr std::u16string_view kVatPrefixes =
    u"AT BE BG CY CZ DE DK EE EL ES FI FR GB HR HU IE IT LT LU LV MT NL PL PT RO SE SI SK CH NO";

// The states of the US as its addresses print them before the ZIP code.
constexpr std::u16string_view kUsStates =
    u"AL AK AZ AR CA CO CT DE FL GA HI ID IL IN IA KS KY LA ME MD MA MI MN MS MO MT NE NV NH NJ NM NY NC "
    u"ND OH OK OR PA RI SC SD TN TX UT VT VA WA WV WI WY DC";

const char16_t* const kLanguages[] = {u"de", u"en", u"fr", u"it", u"es", u"nl"};

// Words common in one of the languages and rare in the others (folded).
const std::unordered_map<std::u16string_view, int>& languageWords() {
  static const auto* words = [] {
    const std::pair<int, std::u16string_view> table[] = {
        {0, u"der"},      {0, u"die"},     {0, u"das"},      {0, u"und"},      {0, u"rechnung"},
        {0, u"fur"},      {0, u"bitte"},   {0, u"betrag"},   {0, u"ihre"},     {0, u"wir"},
        {0, u"mit"},      {1, u"the"},     {1, u"and"},      {1, u"invoice"},  {1, u"for"},
        {1, u"your"},     {1, u"please"},  {1, u"amount"},   {1, u"thank"},    {1, u"you"},
        {1, u"with"},     {1, u"payment"}, {2, u"le"},       {2, u"les"},      {2, u"et"},
        {2, u"facture"},  {2, u"pour"},    {2, u"du"},       {2, u"des"},      {2, u"montant"},
        {2, u"votre"},    {2, u"merci"},   {2, u"paiement"}, {3, u"il"},       {3, u"di"},
        {3, u"della"},    {3, u"fattura"}, {3, u"per"},      {3, u"grazie"},   {3, u"pagamento"},
        {3, u"importo"},  {3, u"totale"},  {4, u"el"},       {4, u"los"},      {4, u"las"},
        {4, u"y"},        {4, u"factura"}, {4, u"gracias"},  {4, u"pago"},     {4, u"importe"},
        {4, u"fecha"},    {5, u"het"},     {5, u"een"},      {5, u"van"},      {5, u"factuur"},
        {5, u"voor"},     {5, u"bedrag"},  {5, u"betaling"}, {5, u"uw"},       {5, u"bedankt"},
    };
    auto* map = new std::unordered_map<std::u16string_view, int>();
    for (const auto& [language, word] : table) map->emplace(word, language);
    return map;
  }();
  return *words;
}

bool isDigit(char16_t c) { return c >= u'0' && c <= u'9'; }

bool isAlnum(char16_t c) {
  return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9') || c > 0xBF;
}

}  // namespace

void LMCountryClues::addPage(std::u16string_view text, std::u16string_view folded) {
  // Each clue that stands as whole words: at every word's start, every clue
  // that the text continues with and that ends where a word ends.
  for (size_t at = 0; at < folded.size(); ++at) {
    if (at > 0 && folded[at - 1] != u' ') continue;
    for (const CountryClue& clue : kCountryClues) {
      const size_t end = at + clue.folded.size();
      if (folded[at] == clue.folded[0] && folded.substr(at, clue.folded.size()) == clue.folded &&
          (end == folded.size() || folded[end] == u' ')) {
        ++countries_[std::u16string(clue.country)];
      }
    }
  }
  for (const CountryClue& clue : kPhonePrefixes) {
    for (size_t at = text.find(clue.folded); at != std::u16string::npos;
         at = text.find(clue.folded, at + 1)) {
      countries_[std::u16string(clue.country)] += 2;
    }
  }
  // VAT ids: two capitals and eight or more digits.
  for (size_t i = 0; i + 10 <= text.size(); ++i) {
    if ((i > 0 && isAlnum(text[i - 1])) || text[i] < u'A' || text[i] > u'Z' || text[i + 1] < u'A' ||
        text[i + 1] > u'Z') {
      continue;
    }
    size_t j = i + 2;
    while (j < text.size() && (isDigit(text[j]) || text[j] == u' ') && j - i < 16) ++j;
    while (j > i + 2 && text[j - 1] == u' ') --j;  // the id ends with its last digit
    size_t digits = 0;
    for (size_t k = i + 2; k < j; ++k) digits += isDigit(text[k]) ? 1 : 0;
    std::u16string country(text.substr(i, 2));
    if (digits >= 8 && digits <= 12 && (j == text.size() || !isAlnum(text[j])) &&
        kVatPrefixes.find(country) != std::u16string_view::npos && kVatPrefixes.find(country) % 3 == 0) {
      if (country == u"EL") country = u"GR";
      countries_[country] += 3;
    }
  }
  // A US address: "Springfield, IL 62704", the state after a comma and
  // before five digits.
  for (size_t at = text.find(u", "); at != std::u16string_view::npos; at = text.find(u", ", at + 1)) {
    const std::u16string_view rest = text.substr(at + 2, 9);
    if (rest.size() < 8 || rest[2] != u' ' || !std::all_of(rest.begin() + 3, rest.begin() + 8, isDigit) ||
        (rest.size() > 8 && isAlnum(rest[8]))) {
      continue;
    }
    const size_t state = kUsStates.find(rest.substr(0, 2));
    if (state != std::u16string_view::npos && state % 3 == 0) countries_[u"US"] += 2;
  }
  const auto& words = languageWords();
  for (size_t i = 0; i < folded.size();) {
    size_t end = folded.find(u' ', i);
    if (end == std::u16string_view::npos) end = folded.size();
    if (const auto it = words.find(folded.substr(i, end - i)); it != words.end()) ++languages_[it->second];
    i = end + 1;
  }
}

std::u16string LMCountryClues::country() const {
  std::u16string out;
  int best = 0;
  for (const auto& [country, count] : countries_) {
    if (count > best) best = count, out = country;
  }
  return out;
}

std::u16string LMCountryClues::language() const {
  size_t best = 0;
  for (size_t i = 1; i < languages_.size(); ++i) {
    if (languages_[i] > languages_[best]) best = i;
  }
  return languages_[best] > 0 ? kLanguages[best] : u"";
}

std::u16string lmDollarOf(std::u16string_view country) {
  if (country == u"NZ") return u"NZD";
  if (country == u"AU") return u"AUD";
  if (country == u"CA") return u"CAD";
  return u"USD";
}

std::u16string lmKronaOf(std::u16string_view country) {
  if (country == u"NO") return u"NOK";
  if (country == u"DK") return u"DKK";
  return u"SEK";
}
