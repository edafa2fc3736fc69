#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "run/reports.h"

namespace {
constexpr int kTipRule = 127;
}

const char* const KESTRIX_ALL_TIPS[kKestrixTips] = {
    "\x1b[1m Tips\x1b[m: Better to run it outside the Micrographs/ directory to match typical Relion "
    "style.\n",
    "\x1b[1m Tips\x1b[m: About CTF: It is perfectly fine to use raw micrograph(before CTF correction) for "
    "particle picking since 30~50Å is sufficient to auto-pick the particles. \n"
    "        Usually for the micrograph with defocus around 2-5µm, the first 'zero-node' is around 20~30Å; "
    "So it is not useful to do CTF correction in general.\n"
    "        However, you can use 'Brenlow' to automatically determine CTF and flip the phases before "
    "picking. \n"
    "        Fully CTF correction on micrograph or applying full CTF on templates is not suggested, because "
    "these operation is normally targeting for high resolution.\n"
    "        Since particle picking is basically 'low-resolution' operation, higher resolution will only "
    "introduce more false picking and template-bias, known as the so-called 'Einstein noise'.\n",
    "\x1b[1m Tips\x1b[m: About '--dont_invertT' option: This option is very important! By default, the "
    "program will invert the 'white' templates to 'black' before picking.\n"
    "        This is because our cryoEM micrographs are usually 'black' and 2D averages are 'white'. \n"
    "        Specify '--dont_invertT' to avoid the contrast conversion if your micrographs and templates "
    "have the same contrast(either black or white). \n"
    "        NOTE that the auto-generated templates is ALWAYS 'white' Guassian blob, so for 'black' cryoEM, "
    "you should use use default. \n"
    "        For 'negative stain' +'auto-templates', you should specify '--dont_invertT' so that the "
    "auto-generated templates and micrographs are both 'white'.\n",
    "\x1b[1m Tips\x1b[m: About '--speed' option: Suggested 2 for >1 MDa complex; 1 for <500 kD complex; 1 or "
    "2 for 500~1000 kD; \n"
    "        0 not suggested, because the 'accuracy' is simply fitting noise, unless for special noise-free "
    "micrographs;\n"
    "        use 3 for huge virus, but 2 still preferred; probably do not use 4 at all, not accurate in "
    "general.\n",
    "\x1b[1m Tips\x1b[m: About '--lsigma_cutoff' option: normally a value >1.2 will be ice, protein "
    "aggregation or contamination, any pixel above that will be considered as non-particle; relative value "
    "to the global sigma, so do not worry about the absolute microgaph pixle values\n",
    "\x1b[1m Tips\x1b[m: About '--lp --hp' options: This option is only applied to micrograph; The templates "
    "will be exactly the same as the user provided.\n"
    "        It is highly suggested to low-pass your templates to ~20~50Å by yourself before picking.\n",
    "\x1b[1m Tips\x1b[m: About \x1b[1m '--exclusive_picking'\x1b[m: So in which case is this option useful? "
    "\n"
    "        (1) Another cycle of auto-picking after 2D classification:\n"
    "            In this case, usually you are pretty sure that some of the particles are completely "
    "rubbish, it will be much better to exclude them during picking. \n"
    "        (2) picking for partial structure:\n"
    "            Sometimes, you might have two/multiple domain complex, e.g. dynein,  one is severely "
    "dominant and affect the picking of the other(the rest). \n"
    "            If you want to focused on another domain, it might be quite helpful to exclude 'good' "
    "particles from 2D classification.\n"
    "        (3) Strong orientation preference:\n"
    "            If your templates were severely biased and mainly picked the preferred views, then it might "
    "be nice to exclude the preferred  views and focused on rare views.\n"
    "        (4) Detector defects:\n"
    "            Occasionally people might have a problem of detector defects, e.g. a black/white stripe, "
    "--exclusive_picking will help to get rid of these bad areas\n"
    "            Apart from \x1b[1m'--exclusive_picking'\x1b[m and \x1b[1m'--excluded_suffix'\x1b[m, the "
    "\x1b[1m'--global_excluded_box'\x1b[m option is helpful to solve these detector issue by providing a "
    "simple box file.\n"
    " ",
    " This brief manual might be helpful. \n"
    "           docs/user-guide.md (installed as share/doc/kestrix/user-guide.md)\n",
    "",
};

void kestrix_put_all_tips() {
  put_rule('-', kTipRule, stdout);
  for (const char* tip : KESTRIX_ALL_TIPS) puts(tip);
  put_rule('-', kTipRule, stdout);
}

void kestrix_put_tip(int index) {
  put_rule('-', kTipRule, stdout);
  fputs(KESTRIX_ALL_TIPS[index], stdout);
  put_rule('-', kTipRule, stdout);
}

void kestrix_put_one_random_tip() {
  srand(static_cast<unsigned>(time(nullptr)));
  kestrix_put_tip(rand() % kKestrixTips);
}
