#include "report/Style.h"

#include <QCryptographicHash>

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

// One accent; red and amber for what needs attention and nothing else. Each text and its ground differ by 4.5
// to 1 at least in both schemes, each curve and its ground by 3 to 1.
const std::string_view kStyleSheet = R"css(
:root{color-scheme:light dark;--bg:#f7f8f9;--card:#fff;--ink:#16191d;--dim:#59626e;--line:#e2e5e9;--grid:#e9ecef;
--accent:#1261c4;--wash:#1261c41a;--second:#8a5a00;--before:#8b95a1;--bad:#b3261e;--badwash:#b3261e14;--near:#8a5a00;
--span:#b3261e2b;--good:#1f6f3f}
@media (prefers-color-scheme:dark){:root{--bg:#0f1215;--card:#171b20;--ink:#e7eaee;--dim:#9ba6b2;--line:#2a3037;
--grid:#242a31;--accent:#6cb0ff;--wash:#6cb0ff24;--second:#e0b050;--before:#77828f;--bad:#ff8f85;--badwash:#ff8f8517;
--near:#e0b050;--span:#ff8f8560;--good:#6fcf97}}
*{box-sizing:border-box}
html{-webkit-text-size-adjust:100%;scroll-padding-top:1rem}
body{margin:0;background:var(--bg);color:var(--ink);font:400 .9375rem/1.5 system-ui,-apple-system,"Segoe UI",Roboto,
"Helvetica Neue","Noto Sans","Liberation Sans",Arial,sans-serif;font-variant-numeric:tabular-nums;overflow-wrap:anywhere}
.wrap{max-width:84rem;margin:0 auto;padding:0 1rem 4rem}
@media (min-width:48rem){.wrap{padding:0 2rem 5rem}}
a{color:var(--accent);text-decoration-thickness:1px;text-underline-offset:.2em}
a:focus-visible,summary:focus-visible,[tabindex]:focus-visible{outline:2px solid var(--accent);outline-offset:2px;
border-radius:2px}
.skip{position:absolute;left:-999rem}.skip:focus{position:static}
header{padding:2rem 0 1.25rem}
header p{margin:.25rem 0 0;color:var(--dim)}
header p:first-child{margin:0 0 .75rem}
h1{margin:0;font-size:1.75rem;line-height:1.2;font-weight:650;letter-spacing:-.015em;overflow-wrap:anywhere}
h2{margin:2.75rem 0 .875rem;font-size:1.1875rem;line-height:1.3;font-weight:650;letter-spacing:-.008em}
h3{margin:0 0 .625rem;font-size:.9375rem;line-height:1.35;font-weight:600}
nav ul{display:flex;flex-wrap:wrap;gap:.25rem 1.25rem;margin:.875rem 0 0;padding:0;list-style:none}
nav a{text-decoration:none}nav a:hover{text-decoration:underline}
p{margin:.5rem 0;max-width:70ch}
.dim,.note{color:var(--dim)}.card>p:last-child{margin-bottom:0}.card>.dim:first-child{margin-top:0}
.note{font-size:.8125rem;margin-top:.75rem}
.grid{display:grid;gap:1rem;grid-template-columns:minmax(0,1fr)}
@media (min-width:48rem){.two,.three{grid-template-columns:repeat(2,minmax(0,1fr))}}
@media (min-width:48rem){.four{grid-template-columns:repeat(2,minmax(0,1fr))}
.wide-first>:first-child{grid-column:span 2}}
@media (min-width:75rem){.three{grid-template-columns:repeat(3,minmax(0,1fr))}
.four{grid-template-columns:repeat(4,minmax(0,1fr))}}
.below{margin-top:1rem}
.card{background:var(--card);border:1px solid var(--line);border-radius:.625rem;padding:1rem 1.125rem;min-width:0}
.tiles{display:grid;gap:1px;grid-template-columns:repeat(2,minmax(0,1fr));background:var(--line);
border:1px solid var(--line);border-radius:.625rem;overflow:hidden;margin:0}
@media (min-width:48rem){.tiles{grid-template-columns:repeat(4,minmax(0,1fr))}}
.tiles div{background:var(--card);padding:.875rem 1.125rem}
.tiles dt{color:var(--dim);font-size:.8125rem}
.tiles dd{margin:0}
.tiles .big{font-size:1.5rem;line-height:1.3;font-weight:600;letter-spacing:-.01em;white-space:nowrap}
.tiles .sub{color:var(--dim);font-size:.8125rem}
.attention{margin:0;padding:0;list-style:none;display:grid;gap:.5rem}
.attention li{display:grid;grid-template-columns:6.5rem minmax(0,1fr);gap:.125rem 1rem;background:var(--badwash);
border-left:3px solid var(--bad);border-radius:.25rem .5rem .5rem .25rem;padding:.5rem .875rem;overflow-wrap:anywhere}
.attention b{color:var(--bad);font-weight:600}
.attention .near{background:none;border-color:var(--near);border-top:1px solid var(--line);
border-right:1px solid var(--line);border-bottom:1px solid var(--line)}
.attention .near b{color:var(--near)}
@media (max-width:36rem){.attention li{grid-template-columns:minmax(0,1fr)}}
.fine{border-left:3px solid var(--good);padding:.5rem .875rem;margin:0;background:var(--card);border-radius:.25rem}
figure{margin:0}
figcaption{display:flex;flex-wrap:wrap;gap:0 1rem;justify-content:space-between;align-items:baseline;
margin-bottom:.375rem}
figcaption h3{margin:0}
.key{color:var(--dim);font-size:.8125rem;display:flex;flex-wrap:wrap;gap:0 .875rem}
.key span::before{content:"";display:inline-block;width:.875rem;height:0;border-top:2px solid var(--accent);
vertical-align:.25em;margin-right:.375rem}
.key .c2::before{border-color:var(--second)}
.key .c0::before{border-top-style:dashed;border-color:var(--before)}
.key .s::before{height:.625rem;vertical-align:-.0625em;border:0;background:var(--span)}
.plot{display:grid;grid-template-columns:3.25rem minmax(0,1fr);gap:.5rem}
svg{display:block;overflow:visible}
.plot svg,.lane{width:100%}
.plot svg svg{overflow:hidden}
svg text{fill:var(--dim);font-size:.75rem}
.m{text-anchor:middle}.e{text-anchor:end}
path{fill:none;vector-effect:non-scaling-stroke;stroke-linejoin:round;stroke-linecap:round}
path.a{fill:var(--wash)}
path.c1{stroke:var(--accent);stroke-width:1.75}
path.c2{stroke:var(--second);stroke-width:1.5}
path.c0{stroke:var(--before);stroke-width:1.5;stroke-dasharray:3 4}
.g{stroke:var(--grid);vector-effect:non-scaling-stroke}
.g.z{stroke:var(--before)}
rect.s{fill:var(--span)}
rect.h{fill:transparent}rect.h:hover{fill:var(--wash)}
.lanes{display:grid;grid-template-columns:minmax(0,3.25rem) minmax(0,1fr);gap:.125rem .5rem;align-items:center}
.lanes .name{font-size:.75rem;color:var(--dim);text-align:right;overflow:hidden;text-overflow:ellipsis;
white-space:nowrap;line-height:1.25}
.lane{height:.75rem}.lane rect.s{fill:var(--bad)}
.k{width:6.5rem;height:1.5rem;margin-left:auto}
.scroll{overflow-x:auto}
table{border-collapse:collapse;width:100%}
caption{text-align:left;font-weight:600;padding-bottom:.5rem}
th,td{padding:.3125rem 0 .3125rem .875rem;text-align:right;vertical-align:top;font-weight:400;
border-bottom:1px solid var(--grid)}
thead th{color:var(--dim);font-size:.8125rem;vertical-align:bottom;border-color:var(--line);white-space:nowrap}
tbody tr:last-child>*{border-bottom:0}
td{white-space:nowrap}
.l{text-align:left;padding-left:0}
.t{text-align:left;white-space:normal;overflow-wrap:anywhere;min-width:8rem}
tbody th{position:relative;overflow-wrap:anywhere;overflow:hidden;isolation:isolate;min-width:7rem}
.scroll tbody th{min-width:10rem}
tbody th.bars{padding-left:.5rem}
thead th.bars{padding-left:.5rem}
.bar{position:absolute;z-index:-1;left:0;top:2px;width:100%;height:calc(100% - 5px)}
.bar rect{fill:var(--wash)}
.of-kind{color:var(--dim);font-size:.8125rem}
tr.sum>*{color:var(--dim);border-top:1px solid var(--line)}
.meter{width:100%;min-width:4.5rem;max-width:11rem;margin-left:auto;height:.375rem;margin-top:.375rem;border-radius:.25rem;overflow:hidden}
.meter rect{fill:var(--accent)}.meter .of{fill:var(--grid)}
.meter.near rect:last-child{fill:var(--near)}.meter.over rect:last-child{fill:var(--bad)}
.up{color:var(--bad)}.narrow{display:none}
@media (max-width:36rem){.wide{display:none}.narrow{display:block}th,td{padding-left:.5rem}
tbody th,.scroll tbody th{min-width:5rem}.use .dim{display:block}td.use{width:6rem}.sites .k{width:4rem}
.alerts th.l{width:5.5rem}.alerts .t{min-width:6rem}}
.heat{table-layout:fixed;border-collapse:separate;border-spacing:2px;min-width:0}
.heat th,.heat td{padding:0;border:0;text-align:center;font-size:.75rem;color:var(--dim);height:1.5rem;
vertical-align:middle;overflow:visible;min-width:0}
.heat thead th{white-space:nowrap;height:1.25rem}
.heat .l{width:2.25rem;text-align:left}
.heat td{border-radius:2px;background:color-mix(in srgb,var(--accent) var(--p),var(--grid))}
.q0{--p:0%}.q1{--p:12%}.q2{--p:24%}.q3{--p:36%}.q4{--p:48%}.q5{--p:60%}.q6{--p:72%}.q7{--p:84%}.q8{--p:100%}
.vh{position:absolute;width:1px;height:1px;overflow:hidden;clip-path:inset(50%);white-space:nowrap}
details{margin-top:.875rem}
summary{color:var(--accent);cursor:pointer;width:fit-content}
details .scroll{margin-top:.75rem;max-height:30rem}
footer{margin-top:3rem;padding-top:1rem;border-top:1px solid var(--line);color:var(--dim);font-size:.8125rem}
@media print{:root{--bg:#fff}.card,.tiles,tr,figure{break-inside:avoid}nav,.skip{display:none}h2{break-after:avoid}
.scroll{max-height:none!important;overflow:visible}}
)css";

QString contentSecurityPolicy()
{
    const auto sheet =
        QByteArrayView(kStyleSheet.data(), static_cast<qsizetype>(kStyleSheet.size())).toByteArray();
    const QByteArray hash = QCryptographicHash::hash(sheet, QCryptographicHash::Sha256).toBase64();
    return u"default-src 'none'; style-src 'sha256-%1'; img-src data:; base-uri 'none'; form-action 'none'"_s
        .arg(QLatin1StringView(hash));
}

} // namespace tarn::report
