#include <cstdio>

#include "run/reports.h"

namespace {

const char* const option_texts[] = {
    "Options:",
    "Basic options:    default values,    description:  ",
    "      --apixM          1.34          Pixel size of the micrograph, in angstrom",
    "      --diameter       400           Particle diameter, in angstrom;",
    "      --T              NONE          Particle picking templates in 2D MRC stack; must provide the "
    "correct pixel size if not the same as micrograph; auto-generated if not provided; ",
    "      --apixT          1.34          Pixel size of the templates, in angstrom; will be the same as "
    "--apixM if not set.\n",
    "Additional options(not suggested, only try to optimize in difficult cases), default values and "
    "description:  ",
    "      --ang_step       5             Angular step size for picking, invalid for auto-templates",
    "      --speed          2             Speed level {0,1,2,3,4}, the bigger the faster, but less "
    "accurate. ",
    "      --boxsize        128           Box size, in pixel, NOT in angstrom; a suggested value will be "
    "automatically calculated by --diameter and --apixM ",
    "      --min_dist       300           Minimum distance between particles in angstrom; 0.9~1.1X diameter; "
    "can be 0.3~0.5 for filament-like particle",
    "      --cc_cutoff      0.1           Cross-correlation cutoff, 0.2~0.4 normally; Try to select several "
    "typical micrographs to optimize this value.\n"
    "                                     For speed, use a small value such as 0.1 and filter the box files "
    "afterwards with separate tools.",
    "      --lsigma_D       200           Diameter for estimation of local sigma, in angstrom",
    "      --lsigma_cutoff  1.3           Local sigma cutoff (relative value), 1.2~1.5 should be a good "
    "range; normally a value >1.2 will be ice, protein aggregation or contamination",
    "      --lave_D         400           Diameter for estimation of local average, in angstrom, 0.5~2.0X "
    "particle diameter suggested; \n"
    "                                     However, if you have 'sharp'/'small' ice or any 'dark'/'bright' "
    "dots, use a smaller value will be much better to get rid of these areas.",
    "      --lave_max       2.0           Local average cutoff (relative value), any pixel value above that "
    "will be considered as ice/aggregation/carbon etc. ",
    "      --lave_min      -1.0           Local average cutoff (relative value), any pixel value below that "
    "will be considered as ice/aggregation/carbon etc.\n"
    "                                     For 'black' cryoEM micrograph, set this to very small value e.g. "
    "-10.0 will not reject any 'black' dots in general.",
    "      --lp             30            Low-pass filter to increase the contrast of raw micrographs, "
    "suggested range 20~50Å. This low-pass is after ice/aggregation detection.",
    "      --hp             1000          High-pass filter to get rid of the global background of raw "
    "micrographs, suggested range 200~2000Å. This high-pass is after ice/aggregation detection.",
    "      --do_pre_filter                Specify to get rid of severely gradient background before "
    "ice/aggregation/carbon detection. This is not normally suggested because it might affect ice/carbon "
    "detection.",
    "      --pre_lp         8.0           The same as --lp, but before the ice/contamination detection, "
    "might be better in severely gradient ice. \n"
    "                                     Does not matter to use both --lp and --pre_lp, but suggested to "
    "use much smaller --pre_lp for better ice/contamination detection. ",
    "      --pre_hp         1000          The same as --hp, but before the ice/contamination detection, "
    "might be better in severely gradient ice. \n"
    "                                     Otherwise, do not use --pre_hp or use a very big value.",
    "      --detect_ice     1             Specify 0 to avoid ice/aggregation/carbon detection.",
    "      --T_norm_type    1             Specify the type of Template normalization, 1, 2 or 3 allowed.",
    "      --do_bandpass    1             Specify 0 to skip the bandpass; By default it will do bandpass "
    "filter.",
    "CTF options(not effective in this verion): ",
    "      --do_ctf                       Specify this option to do CTF determination and correction for "
    "better picking",
    "      --do_local_ctf                 Specify this option to do local CTF determination and correction "
    "for each picked particle",
    "      --kV             300           High tension in Kilovolt, typically 300, 200 or 120",
    "      --cs             2.7           Spherical aberration, in  millimeter",
    "      --ac             0.1           Amplitude contrast; normal range 0.04~0.1; pure ice 0.04, carbon "
    "0.1; but doesn't matter too much if using wrong value\n",
    "I/O options:  ",
    "      --write_ccmax_mic              Specify to write out cross-correlation files, in MRC stack",
    "      --write_pf_mic                 Specify to write out phase-flipped(pf) micrographs(mic)",
    "      --write_pref_mic               Specify to write out pre-filted(pref) micrographs(mic)",
    "      --write_bg_mic                 Specify to write out estimated background(bg) of the "
    "micrographs(mic)",
    "      --write_bgfree_mic             Specify to write out background subtracted (bgfree) "
    "micrographs(mic)",
    "      --write_lsigma_mic             Specify to write out local sigma (lsigma) micrographs(mic)",
    "      --write_mic_mask               Specify to write out the auto-detected mask (ice, contamination, "
    "aggregation, carbon edge etc.) by --lsigma_cutoff or --lave_max or --lave_max ",
    "      --exclusive_picking            Specify to pick the particles by pre-defined coordinates that will "
    "be excluded. \n"
    "                                     This is useful, when you have done 2D classification and provide "
    "the rubbish particles that Kestrix will automatically exclude",
    "      --excluded_suffix              The suffix of coordinates to be excluded. Relion .star and EMAN "
    ".box file are both accepted, extended .box file format in Kestrix preferred.\n"
    "                                     For example, if --excluded_suffix _rubbish.box is provided for "
    "mic0002.mrc, then Kestrix will try to find mic0002_rubbish.box and exclude them during picking.",
    "      --mask_excluded                Specify this option to mask out the excluded coordinates so that "
    "it will nerve be taken into account in any step of processing, even not in the normalization step.\n"
    "                                     This is helpful if the artifacts are extremely different from "
    "normal area of the micrographs.",
    "      --global_excluded_box    NONE  Provide a coordinate .box/.star file to exclude these special "
    "coordinates completely from all micrographs before any processing.\n"
    "                                     So generally, these area will not involve in normalization, "
    "ice/aggregation/carbon detection. They are completely gone.\n"
    "                                     Note, the --excluded_suffix option is used for individual files.",
    "      --do_unfinished                Specify to autopick the unfinished micrographs",
    "      --dont_invertT                 Whether to invert template contrast. VERY IMPORTANT!!! By default, "
    "the program will invert the 'white' templates to 'black' before picking.\n"
    "                                     specify this option to avoid contrast inversion if the micrographs "
    "and templates have the same contrast",
    "      --extract_raw                  Specify to extract particle from raw micrograph",
    "      --extract_pf                   Specify to extract particle from phase-flipped micrograph; will "
    "write a new stack and will not overwrite raw particle stack",
    "      --gid                   0      GPU id, normally it's 0, use gpu_probe to get information of all "
    "available GPUs.\n",
};

// What follows the program's name on the line of an example.
const char* const example_texts[] = {
    " --apixM 1.58  --diameter 300   Micrographs/Falcon*.mrc (auto-generated templates for 'black' cryoEM "
    "micrograph)\n",
    " --apixM 1.08  --diameter 300  -T  templates.mrcs  --apixT 2.16  Micrographs/Falcon*.mrc (for 'white' "
    "templates and 'black' micrograph \n",
    " --apixM 1.08  --diameter 300  -T  templates.mrcs  --apixT 3.2  --dont_invertT  Micrographs/Falcon*.mrc "
    "(for 'black' templates and 'black' micrograph)\n",
    " --apixM 1.08  --diameter 300  --boxsize 360   --write_bgfree_mic  --write_lsigma_mic --extract_raw  "
    "--write_ccmax Micrographs/Falcon*.mrc  (suggested for manual diagnosis using the different types of "
    "output micrographs) \n",
    "   test?.mrc --apixM 1.34 --diameter 400 --min_dist 240 --T templates_lp40_3.2A.mrcs --write_pref_mic "
    "--lsigma_cutoff 1.2 --cc_cutoff 0.18 --lave_D 80 --lave_min -0.8 --lave_max 1.2  --exclusive_picking "
    "--excluded_suffix _rubbish.star --mask_excluded --write_ccmax_mic --write_pf_mic --write_pref_mic "
    "--write_bg_mic --write_bgfree_mic --write_lsigma_mic --write_mic_mask --extract_raw --do_pre_filter 1 "
    "--pre_lp 10  --pre_hp 1000 --lp 40 --boxsize 432 \n",
};

}  // namespace

void kestrix_put_info(const char* program) {
  put_rule('*', 99, stdout);
  printf("Version:       %s %s, updated on %s\n", program, kestrix_version, kestrix_updated_date);
  puts("Author:        the Kestrix developers");
  puts("Contact:       the issue tracker of the project, see README.md");
  puts("Description:   This is a GPU accelerated program for fully automatic particle picking.");
  puts("Note:          Still under development, to be released soon ...");
  put_rule('*', 99, stdout);
}

void kestrix_help(const char* program) {
  kestrix_put_info(program);
  puts("Usage:");
  printf("         %s [options] <micrographs>  \n\n", program);
  for (const char* text : option_texts) puts(text);
  puts("Example:");
  for (const char* text : example_texts) printf("         %s%s", program, text);
  puts("      --help                         Print full help document");
}

void kestrix_help_full(const char* program) {
  kestrix_help(program);
  kestrix_put_all_tips();
}
