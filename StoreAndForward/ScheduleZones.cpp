#include <initializer_list>
#include <map>

#include "StoreAndForward/Schedule.h"

namespace OrloStoreAndForward {

namespace {

// The Windows zone of each IANA zone, as this product has always mapped them. It differs from
// other published mappings in places; schedules in the field rely on it as it stands.
struct WindowsZone {
  const wchar_t* name;
  std::initializer_list<const char*> ianaNames;
};

const WindowsZone kWindowsZones[] = {
    {L"Samoa Standard Time", {"Pacific/Apia", "Pacific/Niue", "Pacific/Pago_Pago"}},
    {L"Hawaiian Standard Time",
     {"Pacific/Midway", "America/Adak", "Pacific/Fakaofo", "Pacific/Honolulu", "Pacific/Johnston",
      "Pacific/Rarotonga", "Pacific/Tahiti", "Pacific/Marquesas"}},
    {L"Alaskan Standard Time",
     {"America/Anchorage", "America/Juneau", "America/Nome", "America/Yakutat", "Pacific/Gambier"}},
    {L"Pacific Standard Time",
     {"America/Dawson", "America/Los_Angeles", "America/Vancouver", "America/Whitehorse",
      "Pacific/Pitcairn"}},
    {L"Pacific Standard Time (Mexico)", {"America/Santa_Isabel", "America/Tijuana"}},
    {L"Mountain Standard Time",
     {"America/Boise", "America/Cambridge_Bay", "America/Dawson_Creek", "America/Denver",
      "America/Edmonton", "America/Hermosillo", "America/Inuvik", "America/Mazatlan",
      "America/Shiprock", "America/Yellowknife"}},
    {L"Mountain Standard Time (Mexico)", {"America/Chihuahua"}},
    {L"US Mountain Standard Time", {"America/Ojinaga", "America/Phoenix"}},
    {L"Central America Standard Time",
     {"America/Belize", "America/Costa_Rica", "America/El_Salvador", "America/Guatemala",
      "Pacific/Easter", "Pacific/Galapagos"}},
    {L"Central Standard Time (Mexico)",
     {"America/Cancun", "America/Mexico_City", "America/Monterrey"}},
    {L"Central Standard Time",
     {"America/Chicago", "America/Indiana/Knox", "America/Indiana/Tell_City", "America/Managua",
      "America/Matamoros", "America/Menominee", "America/Merida", "America/North_Dakota/Center",
      "America/North_Dakota/New_Salem", "America/Rainy_River", "America/Rankin_Inlet",
      "America/Regina", "America/Swift_Current", "America/Tegucigalpa", "America/Winnipeg"}},
    {L"Eastern Standard Time",
     {"America/Atikokan", "America/Cayman", "America/Detroit", "America/Grand_Turk",
      "America/Guayaquil", "America/Iqaluit", "America/Jamaica", "America/Kentucky/Louisville",
      "America/Kentucky/Monticello", "America/Montreal", "America/Nassau", "America/New_York",
      "America/Nipigon", "America/Pangnirtung", "America/Port-au-Prince", "America/Resolute",
      "America/Thunder_Bay", "America/Toronto"}},
    {L"SA Pacific Standard Time",
     {"America/Bogota", "America/Havana", "America/Lima", "America/Panama"}},
    {L"US Eastern Standard Time",
     {"America/Indiana/Indianapolis", "America/Indiana/Marengo", "America/Indiana/Petersburg",
      "America/Indiana/Vevay", "America/Indiana/Vincennes", "America/Indiana/Winamac"}},
    {L"Venezuela Standard Time", {"America/Caracas"}},
    {L"Pacific SA Standard Time",
     {"America/Anguilla", "America/Barbados", "America/Dominica", "America/Santiago"}},
    {L"Atlantic Standard Time",
     {"America/Antigua",       "America/Aruba",         "America/Blanc-Sablon",
      "America/Boa_Vista",     "America/Campo_Grande",  "America/Eirunepe",
      "America/Glace_Bay",     "America/Goose_Bay",     "America/Grenada",
      "America/Guadeloupe",    "America/Guyana",        "America/Halifax",
      "America/Marigot",       "America/Martinique",    "America/Moncton",
      "America/Montserrat",    "America/Port_of_Spain", "America/Santo_Domingo",
      "America/St_Barthelemy", "America/St_Kitts",      "America/St_Lucia",
      "America/St_Thomas",     "America/St_Vincent",    "America/Thule",
      "America/Tortola",       "Antarctica/Palmer",     "Atlantic/Bermuda"}},
    {L"Paraguay Standard Time", {"America/Asuncion"}},
    {L"Central Brazilian Standard Time",
     {"America/Cuiaba", "America/Curacao", "America/Porto_Velho", "America/Puerto_Rico",
      "America/Rio_Branco"}},
    {L"SA Western Standard Time", {"America/La_Paz", "America/Manaus"}},
    {L"Newfoundland Standard Time", {"America/St_Johns"}},
    {L"E. South America Standard Time",
     {"America/Araguaina", "America/Bahia", "America/Belem", "America/Maceio", "America/Miquelon",
      "America/Santarem", "America/Sao_Paulo"}},
    {L"Argentina Standard Time",
     {"America/Argentina/Buenos_Aires", "America/Argentina/Catamarca", "America/Argentina/Cordoba",
      "America/Argentina/Jujuy", "America/Argentina/La_Rioja", "America/Argentina/Mendoza",
      "America/Argentina/Rio_Gallegos", "America/Argentina/Salta", "America/Argentina/San_Juan",
      "America/Argentina/San_Luis", "America/Argentina/Tucuman", "America/Argentina/Ushuaia",
      "Antarctica/Rothera", "Atlantic/Stanley"}},
    {L"SA Eastern Standard Time",
     {"America/Cayenne", "America/Fortaleza", "America/Paramaribo", "America/Recife"}},
    {L"Greenland Standard Time", {"America/Godthab"}},
    {L"Montevideo Standard Time", {"America/Montevideo"}},
    {L"Mid-Atlantic Standard Time", {"America/Noronha", "Atlantic/South_Georgia"}},
    {L"Azores Standard Time", {"America/Scoresbysund", "Atlantic/Azores"}},
    {L"Cape Verde Standard Time", {"Atlantic/Cape_Verde"}},
    {L"GMT Standard Time", {"Africa/Abidjan",       "Africa/Accra",
                            "Africa/Bamako",        "Africa/Banjul",
                            "Africa/Bissau",        "Africa/Conakry",
                            "Africa/Dakar",         "Africa/El_Aaiun",
                            "Africa/Freetown",      "Africa/Lome",
                            "Africa/Monrovia",      "Africa/Nouakchott",
                            "Africa/Ouagadougou",   "Africa/Sao_Tome",
                            "America/Danmarkshavn", "Antarctica/Vostok",
                            "Atlantic/Canary",      "Atlantic/Faroe",
                            "Atlantic/Madeira",     "Europe/Dublin",
                            "Europe/Guernsey",      "Europe/Isle_of_Man",
                            "Europe/Jersey",        "Europe/Lisbon",
                            "Europe/London",        "GMT"}},
    {L"Morocco Standard Time", {"Africa/Casablanca"}},
    {L"Greenwich Standard Time", {"Atlantic/Reykjavik", "Atlantic/St_Helena"}},
    {L"UTC", {"UTC"}},
    {L"W. Central Africa Standard Time",
     {"Africa/Algiers", "Africa/Bangui", "Africa/Brazzaville", "Africa/Ceuta", "Africa/Douala",
      "Africa/Kinshasa", "Africa/Lagos", "Africa/Libreville", "Africa/Luanda", "Africa/Malabo",
      "Africa/Ndjamena", "Africa/Niamey", "Africa/Porto-Novo", "Africa/Tunis"}},
    {L"Namibia Standard Time", {"Africa/Windhoek"}},
    {L"W. Europe Standard Time",
     {"Arctic/Longyearbyen", "Europe/Amsterdam", "Europe/Andorra", "Europe/Berlin",
      "Europe/Gibraltar", "Europe/Luxembourg", "Europe/Malta", "Europe/Monaco", "Europe/Oslo",
      "Europe/Podgorica", "Europe/Rome", "Europe/San_Marino", "Europe/Stockholm", "Europe/Tirane",
      "Europe/Vaduz", "Europe/Vatican", "Europe/Vienna", "Europe/Zurich"}},
    {L"Central Europe Standard Time",
     {"Europe/Belgrade", "Europe/Bratislava", "Europe/Budapest", "Europe/Ljubljana",
      "Europe/Prague", "Europe/Sarajevo", "Europe/Skopje", "Europe/Warsaw", "Europe/Zagreb"}},
    {L"Romance Standard Time",
     {"Europe/Brussels", "Europe/Copenhagen", "Europe/Madrid", "Europe/Paris"}},
    {L"South Africa Standard Time",
     {"Africa/Blantyre", "Africa/Bujumbura", "Africa/Gaborone", "Africa/Harare",
      "Africa/Johannesburg", "Africa/Kigali", "Africa/Lubumbashi", "Africa/Lusaka", "Africa/Maputo",
      "Africa/Maseru", "Africa/Mbabane"}},
    {L"Egypt Standard Time", {"Africa/Cairo"}},
    {L"Middle East Standard Time", {"Africa/Tripoli", "Asia/Beirut", "Asia/Gaza"}},
    {L"Jordan Standard Time", {"Asia/Amman"}},
    {L"Syria Standard Time", {"Asia/Damascus"}},
    {L"Israel Standard Time", {"Asia/Jerusalem"}},
    {L"GTB Standard Time", {"Asia/Nicosia", "Europe/Athens", "Europe/Bucharest"}},
    {L"E. Europe Standard Time",
     {"Europe/Chisinau", "Europe/Kiev", "Europe/Mariehamn", "Europe/Simferopol", "Europe/Uzhgorod",
      "Europe/Zaporozhye"}},
    {L"FLE Standard Time",
     {"Europe/Helsinki", "Europe/Riga", "Europe/Sofia", "Europe/Tallinn", "Europe/Vilnius"}},
    {L"Turkey Standard Time", {"Europe/Istanbul"}},
    {L"E. Africa Standard Time",
     {"Africa/Addis_Ababa", "Africa/Asmara", "Africa/Dar_es_Salaam", "Africa/Djibouti",
      "Africa/Juba", "Africa/Kampala", "Africa/Khartoum", "Africa/Mogadishu", "Africa/Nairobi"}},
    {L"Kaliningrad Standard Time",
     {"Antarctica/Syowa", "Asia/Aden", "Europe/Kaliningrad", "Europe/Minsk"}},
    {L"Arabic Standard Time", {"Asia/Baghdad", "Asia/Bahrain"}},
    {L"Arab Standard Time",
     {"Asia/Kuwait", "Asia/Qatar", "Asia/Riyadh", "Indian/Antananarivo", "Indian/Comoro",
      "Indian/Mayotte"}},
    {L"Iran Standard Time", {"Asia/Tehran"}},
    {L"Caucasus Standard Time", {"Asia/Baku", "Asia/Yerevan"}},
    {L"Arabian Standard Time", {"Asia/Dubai", "Asia/Muscat"}},
    {L"Georgian Standard Time", {"Asia/Tbilisi"}},
    {L"Russian Standard Time", {"Europe/Moscow", "Europe/Samara", "Europe/Volgograd"}},
    {L"Mauritius Standard Time", {"Indian/Mahe", "Indian/Mauritius", "Indian/Reunion"}},
    {L"Afghanistan Standard Time", {"Asia/Kabul"}},
    {L"West Asia Standard Time",
     {"Asia/Aqtau", "Asia/Aqtobe", "Asia/Ashgabat", "Asia/Dushanbe", "Asia/Oral", "Asia/Samarkand",
      "Asia/Tashkent", "Indian/Kerguelen", "Indian/Maldives"}},
    {L"Pakistan Standard Time", {"Asia/Karachi"}},
    {L"Sri Lanka Standard Time", {"Asia/Colombo"}},
    {L"India Standard Time", {"Asia/Kolkata"}},
    {L"Nepal Standard Time", {"Asia/Kathmandu"}},
    {L"Central Asia Standard Time",
     {"Antarctica/Mawson", "Asia/Almaty", "Asia/Bishkek", "Asia/Qyzylorda", "Asia/Thimphu",
      "Indian/Chagos"}},
    {L"Bangladesh Standard Time", {"Asia/Dhaka"}},
    {L"Ekaterinburg Standard Time", {"Asia/Yekaterinburg"}},
    {L"Myanmar Standard Time", {"Asia/Rangoon", "Indian/Cocos"}},
    {L"SE Asia Standard Time",
     {"Antarctica/Davis", "Asia/Bangkok", "Asia/Ho_Chi_Minh", "Asia/Jakarta", "Asia/Phnom_Penh",
      "Asia/Pontianak", "Asia/Vientiane", "Indian/Christmas"}},
    {L"N. Central Asia Standard Time",
     {"Asia/Hovd", "Asia/Novokuznetsk", "Asia/Novosibirsk", "Asia/Omsk"}},
    {L"W. Australia Standard Time", {"Antarctica/Casey", "Australia/Perth", "Australia/Eucla"}},
    {L"North Asia Standard Time",
     {"Asia/Brunei", "Asia/Kashgar", "Asia/Krasnoyarsk", "Asia/Kuching", "Asia/Macau",
      "Asia/Makassar", "Asia/Manila"}},
    {L"China Standard Time",
     {"Asia/Choibalsan", "Asia/Chongqing", "Asia/Harbin", "Asia/Hong_Kong", "Asia/Shanghai",
      "Asia/Urumqi"}},
    {L"Singapore Standard Time", {"Asia/Kuala_Lumpur", "Asia/Singapore"}},
    {L"Taipei Standard Time", {"Asia/Taipei"}},
    {L"Ulaanbaatar Standard Time", {"Asia/Ulaanbaatar"}},
    {L"North Asia East Standard Time",
     {"Asia/Dili", "Asia/Irkutsk", "Asia/Jayapura", "Pacific/Palau"}},
    {L"Korea Standard Time", {"Asia/Pyongyang", "Asia/Seoul"}},
    {L"Tokyo Standard Time", {"Asia/Tokyo"}},
    {L"Cen. Australia Standard Time", {"Australia/Adelaide"}},
    {L"AUS Central Standard Time", {"Australia/Broken_Hill", "Australia/Darwin"}},
    {L"E. Australia Standard Time",
     {"Antarctica/DumontDUrville", "Australia/Brisbane", "Australia/Lindeman",
      "Australia/Lord_Howe"}},
    {L"Yakutsk Standard Time", {"Asia/Yakutsk"}},
    {L"Tasmania Standard Time", {"Australia/Currie", "Australia/Hobart"}},
    {L"AUS Eastern Standard Time", {"Australia/Melbourne", "Australia/Sydney"}},
    {L"West Pacific Standard Time",
     {"Pacific/Guam", "Pacific/Port_Moresby", "Pacific/Saipan", "Pacific/Truk"}},
    {L"Vladivostok Standard Time", {"Asia/Sakhalin", "Asia/Vladivostok"}},
    {L"Central Pacific Standard Time",
     {"Pacific/Efate", "Pacific/Guadalcanal", "Pacific/Kosrae", "Pacific/Noumea", "Pacific/Ponape",
      "Pacific/Norfolk"}},
    {L"UTC+12", {"Antarctica/McMurdo", "Antarctica/South_Pole"}},
    {L"Magadan Standard Time", {"Asia/Anadyr", "Asia/Kamchatka", "Asia/Magadan"}},
    {L"New Zealand Standard Time", {"Pacific/Auckland"}},
    {L"Fiji Standard Time",
     {"Pacific/Fiji", "Pacific/Funafuti", "Pacific/Kwajalein", "Pacific/Majuro", "Pacific/Nauru",
      "Pacific/Tarawa", "Pacific/Wake", "Pacific/Wallis"}},
    {L"Tonga Standard Time",
     {"Pacific/Chatham", "Pacific/Enderbury", "Pacific/Tongatapu", "Pacific/Kiritimati"}},
};

using ZoneTable = std::map<std::string, std::wstring>;

ZoneTable MakeZoneTable() {
  ZoneTable table;
  for (const WindowsZone& zone : kWindowsZones) {
    for (const char* ianaName : zone.ianaNames) {
      table.emplace(ianaName, zone.name);
    }
  }
  return table;
}

constexpr wchar_t kTimeZonesKey[] =
    L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Time Zones\\";

// REG_TZI_FORMAT, the published layout of the value "TZI".
struct RegistryZone {
  LONG Bias;
  LONG StandardBias;
  LONG DaylightBias;
  SYSTEMTIME StandardDate;
  SYSTEMTIME DaylightDate;
};
static_assert(sizeof(RegistryZone) == 44);

bool ReadRegistryZone(const std::wstring& windowsName, RegistryZone& zone) {
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, (kTimeZonesKey + windowsName).c_str(), 0, KEY_QUERY_VALUE,
                    &key) != ERROR_SUCCESS) {
    return false;
  }
  DWORD size = sizeof(zone);
  const LSTATUS error =
      RegQueryValueExW(key, L"TZI", nullptr, nullptr, reinterpret_cast<LPBYTE>(&zone), &size);
  RegCloseKey(key);
  return error == ERROR_SUCCESS;
}

}  // namespace

bool Schedule::ResolveTimeZone(const std::string& zoneName, TIME_ZONE_INFORMATION& tzInfo) {
  static const ZoneTable table = MakeZoneTable();
  const auto found = table.find(zoneName);
  if (found == table.end()) {
    return false;
  }
  RegistryZone zone{};
  if (!ReadRegistryZone(found->second, zone)) {
    return false;
  }
  tzInfo = TIME_ZONE_INFORMATION{};
  tzInfo.Bias = zone.Bias;
  tzInfo.StandardBias = zone.StandardBias;
  tzInfo.DaylightBias = zone.DaylightBias;
  tzInfo.StandardDate = zone.StandardDate;
  tzInfo.DaylightDate = zone.DaylightDate;
  return true;
}

}  // namespace OrloStoreAndForward
